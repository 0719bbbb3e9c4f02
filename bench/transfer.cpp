// transfer [ROUNDS]: `cloud_msg download` against `curl -s -o`, of 64 MiB by HTTP and by HTTPS, and of 4 MiB
// from a server that is throttled, over loopback to a RAM disk. The server has one processor, the clients
// another. The second that the program rests at its end, for readers of its status, is not counted. Prints a
// table. CLOUD_MSG_COMMAND names another program, as for extender; it must trust the list of authorities in
// /etc/ssl/certs/ca-certificates.crt.
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "device.h"
#include "figure.h"
#include "firmware.h"
#include "image_scenario.h"
#include "image_server.h"
#include "namespace.h"

namespace {

using emulator::json;
using emulator::Times;

constexpr size_t kImageBytes = 64U << 20U;
constexpr double kRest_us = 1e6;
constexpr const char *kResult = "/tmp/httpUploadFile.bin";

struct Way {
    const char *name;
    json image;
    size_t bytes;
    const char *limit;
};

const std::vector<Way> kWays{
    {"64 MiB, HTTP", json::parse(R"({"rules": []})"), kImageBytes, "0.57 (splice), 0.80 (read and write)"},
    {"64 MiB, HTTPS", json::parse(R"({"tls": true, "rules": []})"), kImageBytes, "1, with curl's ciphers"},
    {"4 MiB, HTTP, 4 MB a second",
     json::parse(R"({"rules": [{"do": {"trickle": {"bytes": 40000, "ms": 10}}}]})"), kImageBytes / 16,
     "1: the server's pace"},
};

void _pin(int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    sched_setaffinity(0, sizeof set, &set);
}

void _measure(const Way &way, int rounds) {
    emulator::Device device;
    const auto server = emulator::make_image_server(device.journal(), way.image);
    emulator::offer_firmware(device, *server, emulator::kNewVersion, way.bytes);
    emulator::put_status_file();
    if (device.cloud_msg({"getFwList"}).status != 0) {
        throw std::runtime_error("no list of firmware:\n" + device.journal().text());
    }
    std::vector<std::string> program{"taskset", "-c", "1"};
    std::vector<std::string> curl = program;
    const std::vector<std::string> words = emulator::cloud_msg_command();
    program.insert(program.end(), words.begin(), words.end());
    program.emplace_back("download");
    curl.insert(curl.end(), {"curl", "-s", "-o", "/tmp/curl.bin", server->url("/re_1.0.7.bin")});
    const auto times = emulator::race({program, curl}, rounds, [&] {
        unlink(kResult);
        unlink("/tmp/curl.bin");
        device.journal().clear();
    });
    device.run(program);
    if (access(kResult, F_OK) != 0) {
        throw std::runtime_error("the image has not arrived:\n" + device.journal().text());
    }
    std::vector<Times> own = times[0];
    for (Times &one : own) {
        one.wall_us -= kRest_us;
    }
    print_figure(way.name, "wall / curl", emulator::ratio(own, times[1], &Times::wall_us), way.limit);
    print_figure(way.name, "processor / curl", emulator::ratio(own, times[1], &Times::processor_us), "");
}

}  // namespace

int main(int argc, char **argv) try {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 9;
    emulator::enter_device();
    _pin(0);
    print_head();
    for (const Way &way : kWays) {
        _measure(way, rounds);
    }
    return 0;
} catch (const std::exception &error) {
    std::fprintf(stderr, "transfer: %s\n", error.what());
    return 1;
}
