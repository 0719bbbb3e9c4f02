#include "firmware.h"

#include <unistd.h>

#include <array>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

namespace emulator {
namespace {

constexpr std::chrono::milliseconds kLookEvery{20};
constexpr int kBarWidth = 40;
constexpr const char *kImagePath = "/tmp/offered.img";

struct State {
    int number;
    bool final;
    const char *name;
};

constexpr std::array kStates{
    State{1, false, "downloading"},           State{2, true, "downloaded"},
    State{3, false, "verifying, installing"}, State{4, false, "asking the cloud"},
    State{5, true, "asked the cloud"},        State{11, false, "starting"},
    State{20000, true, "download failed"},    State{20001, true, "image refused"},
    State{20003, true, "check failed"},       State{20004, true, "no memory"},
};

std::string _content(const char *path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// {status, percent}; {-1, 0} while there is no readable file.
std::array<int, 2> _status() {
    const json document = json::parse(_content(kStatusPath), nullptr, false);
    if (!document.is_object() || !document.contains("fw_status") || !document.contains("dwProgress")) {
        return {-1, 0};
    }
    return {document.at("fw_status").get<int>(), document.at("dwProgress").get<int>()};
}

const State *_find(int number) {
    for (const State &state : kStates) {
        if (state.number == number) {
            return &state;
        }
    }
    return nullptr;
}

}  // namespace

void offer_firmware(Device &device, ImageServer &server, const std::string &version, size_t payload_bytes) {
    const Run run = Process({"cloud_image", "make", "--version", version, "--size",
                             std::to_string(payload_bytes), "-o", kImagePath})
                        .wait();
    if (run.status != 0) {
        throw std::runtime_error("cloud_image: " + run.err);
    }
    const std::string name = "/re_" + version.substr(0, version.find(' '));
    server.put(name + ".bin", _content(kImagePath));
    unlink(kImagePath);
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

int firmware_status() {
    return _status()[0];
}

bool is_final(int fw_status) {
    const State *state = _find(fw_status);
    return state != nullptr && state->final;
}

ProgressBar::ProgressBar(std::ostream &out)
    : out_(out), terminal_(isatty(&out == &std::cerr ? STDERR_FILENO : STDOUT_FILENO) != 0) {
    drawer_ = std::thread([this] {
        while (!ended_) {
            _show();
            std::this_thread::sleep_for(kLookEvery);
        }
        _show();
    });
}

ProgressBar::~ProgressBar() {
    ended_ = true;
    drawer_.join();
    if (terminal_ && !last_.empty()) {
        out_ << '\n';
    }
    out_.flush();
}

void ProgressBar::_show() {
    const auto [number, percent] = _status();
    const State *state = _find(number);
    if (state == nullptr) {
        return;
    }
    const int shown = terminal_ ? percent : percent / 10 * 10;
    const auto full = static_cast<size_t>(std::min(std::max(shown, 0), 100) * kBarWidth / 100);
    const std::string line = "   [" + std::string(full, '#') + std::string(kBarWidth - full, '.') + "] " +
                             std::to_string(shown) + " % " + state->name;
    if (line != last_) {
        last_ = line;
        out_ << (terminal_ ? "\r\x1b[K" : "") << line << (terminal_ ? "" : "\n") << std::flush;
    }
}

}  // namespace emulator
