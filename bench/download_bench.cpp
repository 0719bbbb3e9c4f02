// download_bench [ROUNDS]: 64 MiB over loopback HTTP to a RAM disk, by `cloud_msg download` and by
// `curl -s -o`, in turns. Prints wall and processor time of each, the medians, and their ratio. The
// second that the program rests at its end, for readers of its status, is not counted.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "device.h"
#include "firmware.h"
#include "image_server.h"
#include "namespace.h"

namespace {

using emulator::Device;
using Clock = std::chrono::steady_clock;

constexpr size_t kImageBytes = 64U << 20U;
constexpr double kRest_s = 1.0;

struct Times {
    double wall;
    double processor;
};

double _processor_time() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

Times _measure(Device &device, const std::vector<std::string> &argv, const char *result) {
    const double processor = _processor_time();
    const auto begin = Clock::now();
    emulator::Process process = device.start(argv);
    const emulator::Run run = process.wait();
    const double wall = std::chrono::duration<double>(Clock::now() - begin).count();
    if (run.status != 0 || access(result, F_OK) != 0) {
        std::fprintf(stderr, "%s: status %d\n%s%s", argv[0].c_str(), run.status, run.err.c_str(),
                     device.journal().text().c_str());
        std::exit(1);
    }
    unlink(result);
    return {wall, _processor_time() - processor};
}

Times _median(const std::vector<Times> &rounds) {
    const auto middle = [&](double Times::*member) {
        std::vector<double> values;
        values.reserve(rounds.size());
        for (const Times &times : rounds) {
            values.push_back(times.*member);
        }
        std::nth_element(values.begin(), values.begin() + std::ssize(values) / 2, values.end());
        return values[values.size() / 2];
    };
    return {middle(&Times::wall), middle(&Times::processor)};
}

void _print(const char *name, const Times &times) {
    std::printf("%-20s %6.3f s wall, %6.3f s processor\n", name, times.wall, times.processor);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char **argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 9;
    emulator::enter_device();
    Device device;
    emulator::ImageServer server(device.journal());
    emulator::offer_firmware(device, server, emulator::kNewVersion, kImageBytes);
    emulator::put_status_file();
    static_cast<void>(device.cloud_msg({"getFwList"}));
    const std::string url = server.url("/re_1.0.7.bin");
    std::vector<Times> program;
    std::vector<Times> curl;
    for (int round = 0; round < rounds; ++round) {
        program.push_back(_measure(device, {"cloud_msg", "download"}, "/tmp/httpUploadFile.bin"));
        program.back().wall -= kRest_s;
        _print("cloud_msg download", program.back());
        curl.push_back(_measure(device, {"curl", "-s", "-o", "/tmp/curl.bin", url}, "/tmp/curl.bin"));
        _print("curl -s -o", curl.back());
        device.journal().clear();
    }
    const Times ours = _median(program);
    const Times theirs = _median(curl);
    std::printf("medians of %d:\n", rounds);
    _print("cloud_msg download", ours);
    _print("curl -s -o", theirs);
    std::printf("ratio: %.2f wall, %.2f processor\n", ours.wall / theirs.wall,
                ours.processor / theirs.processor);
    return 0;
}
