// device_bench PROGRAM...: what commands of the program take on an emulated device, as table rows:
// printed result, the most memory resident, time, libraries loaded. Downloads are of 64 MiB. The time is of
// one run under the tracer, without what it took to look at the memory. With CLOUD_BENCH_CA, a folder with
// ca.pem, server.pem and server.key, one is by HTTPS, too; the program must have been built to trust
// /mnt/ca.pem.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>

#include "device.h"
#include "image_server.h"
#include "namespace.h"

namespace {

using emulator::Device;
using emulator::ImageServer;
using emulator::json;
using Strings = std::vector<std::string>;

constexpr size_t kImageBytes = size_t{64} * 1024 * 1024;
const std::string kStateFile = "/mnt/exit_state";

class Bench {
public:
    explicit Bench(Strings program) : program_(std::move(program)) {}

    // Runs one command and prints its row.
    void row(Device &device, const std::string &title, const Strings &arguments) {
        Strings words{"exit_state", kStateFile};
        words.insert(words.end(), program_.begin(), program_.end());
        words.insert(words.end(), arguments.begin(), arguments.end());
        const auto begin = std::chrono::steady_clock::now();
        emulator::Run run = device.run(words);
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
        run.out.erase(run.out.find_last_not_of('\n') + 1);
        json state;
        std::ifstream(kStateFile) >> state;
        std::string libraries;
        for (const auto &name : state.at("libraries")) {
            libraries += (libraries.empty() ? "" : " ") + name.get<std::string>();
        }
        std::printf("| `%s` | %s | %d KiB | %d KiB | %.0f ms | %s |\n", title.c_str(), run.out.c_str(),
                    state.at("rss_kib").get<int>(), state.at("anonymous_kib").get<int>(),
                    took.count() - state.at("looking_ms").get<double>(),
                    libraries.empty() ? "none" : libraries.c_str());
        std::fflush(stdout);
    }

    void download(Device &device, const std::string &title, ImageServer &server, const std::string &content) {
        server.put("/fw.bin", content);
        const std::string version = "1.0.7 Build 20210611 Rel.51820";
        device.cloud().change({{"firmware", json::array({{{"fwType", 2},
                                                          {"fwVer", version},
                                                          {"fwReleaseDate", "2021-06-11"},
                                                          {"fwUrl", server.url("/fw.bin")},
                                                          {"fwReleaseLog", ""},
                                                          {"fwReleaseLogUrl", ""},
                                                          {"fwLocation", 0}}})}});
        Strings words = program_;
        words.emplace_back("getFwList");
        static_cast<void>(device.run(words));
        row(device, title, {"download"});
        for (const char *path : {"/tmp/cloud_up_img.bin", "/tmp/httpUploadFile.bin"}) {
            std::error_code error;
            if (const auto size = std::filesystem::file_size(path, error); !error && size == content.size()) {
                unlink(path);
                return;
            }
        }
        std::cerr << "device_bench: the image has not arrived\n" << device.journal().text();
        std::exit(1);
    }

private:
    Strings program_;
};

std::string _file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The image: bytes without a period.
std::string _content() {
    std::string content(kImageBytes, '\0');
    std::mt19937 source(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same image each time
    for (size_t i = 0; i < content.size(); i += 4) {
        const auto word = static_cast<uint32_t>(source());
        std::copy_n(reinterpret_cast<const char *>(&word), 4, &content[i]);
    }
    return content;
}

}  // namespace

int main(int argc, char **argv) try {
    if (argc < 2) {
        std::cerr << "Usage: device_bench PROGRAM...\n";
        return 2;
    }
    emulator::DeviceOptions options;
    const char *const ca = std::getenv("CLOUD_BENCH_CA");
    if (ca != nullptr) {
        options.keep.emplace_back(ca);
    }
    emulator::enter_device(options);
    Device device;
    Bench bench(Strings(argv + 1, argv + argc));
    std::puts(
        "| command | prints | resident at most | no file's at most | time | libraries "
        "|\n|---|---|---:|---:|---:|---|");
    // Plain text where the platform's RSA is the null one.
    const bool null_rsa = std::getenv("CLOUD_BENCH_NULL_PLATFORM") != nullptr;
    bench.row(device, "getLogicStatus", {"getLogicStatus"});
    bench.row(device, "bind",
              {"bind", "alice@example.com", null_rsa ? "Secret-1" : device.encrypt("Secret-1")});
    bench.row(device, "getBindStatus", {"getBindStatus"});
    const std::string content = _content();
    ImageServer plain(device.journal());
    bench.download(device, "download", plain, content);
    if (ca != nullptr) {
        const std::string folder = ca;
        std::ofstream("/mnt/ca.pem", std::ios::binary) << _file(folder + "/ca.pem");
        ImageServer secure(device.journal(), {folder + "/server.pem", folder + "/server.key"});
        bench.download(device, "download (HTTPS)", secure, content);
    }
    return 0;
} catch (const std::exception &error) {
    std::cerr << "device_bench: " << error.what() << '\n';
    return 1;
}
