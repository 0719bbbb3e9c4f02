#include "firmware.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include "namespace.h"
#include "process.h"

namespace emulator {
namespace {

constexpr std::chrono::milliseconds kLookEvery{20};
constexpr std::chrono::seconds kIdle{2};
constexpr std::chrono::seconds kStuck{60};
constexpr std::array kLockPaths{"/tmp/cloud_dl_img.lock", "/tmp/cloud_up_img.lock"};
constexpr int kAsking = 4;
constexpr int kBarWidth = 40;

struct State {
    int number;
    bool final;
    const char *name;
};

constexpr std::array kStates{
    State{1, false, "downloading"},           State{2, true, "downloaded"},
    State{3, false, "verifying, installing"}, State{kAsking, false, "asking the cloud"},
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
    std::array<int, 2> status{-1, 0};
    for (size_t i = 0; i < status.size(); ++i) {
        const char *const name = i == 0 ? "fw_status" : "dwProgress";
        if (!document.is_object() || !document.contains(name) || !document.at(name).is_number_integer()) {
            return {-1, 0};
        }
        status.at(i) = document.at(name).get<int>();
    }
    return status;
}

// A check has no lock, but is soon in the state that waits for the cloud.
bool _seems_to_run(const State *state) {
    return (state != nullptr && state->number == kAsking) ||
           std::any_of(kLockPaths.begin(), kLockPaths.end(),
                       [](const char *path) { return access(path, F_OK) == 0; });
}

const State *_find(int number) {
    for (const State &state : kStates) {
        if (state.number == number) {
            return &state;
        }
    }
    return nullptr;
}

std::string _make_image(const std::string &version, size_t payload_bytes) {
    const std::string path = std::string(kPrivateFolder) + "/offered.img";
    const Run run = Process({"cloud_image", "make", "--version", version, "--size",
                             std::to_string(payload_bytes), "-o", path})
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

void offer_firmware(Device &device, ImageServer &server, const std::string &version, size_t payload_bytes) {
    const std::string name = "/re_" + version.substr(0, version.find(' '));
    server.put_later(name + ".bin", [version, payload_bytes] { return _make_image(version, payload_bytes); });
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

ProgressBar::FileMark ProgressBar::_mark() {
    struct stat status {};
    stat(kStatusPath, &status);  // none: zeros
    return {static_cast<int64_t>(status.st_ino), status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

void ProgressBar::await_end() const {
    // What an earlier command left there is no end of the one that is waited for, which may be about to
    // start.
    FileMark last = first_;
    auto changed = std::chrono::steady_clock::now();
    for (;; std::this_thread::sleep_for(kLookEvery)) {
        const FileMark now = _mark();
        if (now != last) {
            last = now;
            changed = std::chrono::steady_clock::now();
        }
        const State *state = _find(_status()[0]);
        const bool ended = now != first_ && state != nullptr && state->final;
        if (ended || std::chrono::steady_clock::now() - changed > (_seems_to_run(state) ? kStuck : kIdle)) {
            return;
        }
    }
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
