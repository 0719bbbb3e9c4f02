#include "firmware.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "namespace.h"
#include "process.h"

namespace emulator {
namespace {

std::string _make_image(const std::string &version, size_t payloadBytes) {
    const std::string path = std::string(kPrivateFolder) + "/offered.img";
    const Run run = Process({"cloud_image", "make", "--version", version, "--size",
                             std::to_string(payloadBytes), "-o", path})
                        .wait();
    if (run.status != 0) {
        throw std::runtime_error("cloud_image: " + run.err);
    }
    std::string image(std::filesystem::file_size(path), '\0');
    std::ifstream(path, std::ios::binary).read(image.data(), std::ssize(image));
    unlink(path.c_str());
    return image;
}

}  // namespace

void offer_firmware(Device &device, ImageServer &server, const std::string &version, size_t payloadBytes) {
    const std::string name = "/re_" + version.substr(0, version.find(' '));
    server.put_later(name + ".bin", [version, payloadBytes] { return _make_image(version, payloadBytes); });
    device.cloud().change({{"firmware", json::array({{{"fwType", 2},
                                                      {"fwVer", version},
                                                      {"fwReleaseDate", "2021-06-11"},
                                                      {"fwUrl", server.url(name + ".bin")},
                                                      {"fwReleaseLog", "Security fixes."},
                                                      {"fwReleaseLogUrl", server.url(name + ".html")},
                                                      {"fwLocation", 0}}})}});
}

void put_status_file() {
    std::ofstream(kStatusPath) << R"({"fw_status":0,"dwProgress":0,"cloud_start":0})";
}

}  // namespace emulator
