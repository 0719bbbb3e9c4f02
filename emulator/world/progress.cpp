#include "progress.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>

#include "firmware.h"
#include "image_lock.h"
#include "journal.h"

namespace emulator {
namespace {

constexpr std::chrono::milliseconds kLookEvery{20};
constexpr std::chrono::seconds kIdle{2};
constexpr std::chrono::seconds kStuck{60};
constexpr int kAsking = 4;
constexpr size_t kBarWidth = 40;
constexpr size_t kLeastBar = 5;
constexpr size_t kUsualColumns = 80;

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

const State *_find(int number) {
    for (const State &state : kStates) {
        if (state.number == number) {
            return &state;
        }
    }
    return nullptr;
}

// {status, percent}; {-1, 0} while there is no readable file.
std::array<int, 2> _status() {
    std::ifstream file(kStatusPath, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const json document = json::parse(text, nullptr, false);
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

int _terminal_of(const std::ostream &out) {
    const int fd = &out == &std::cerr ? STDERR_FILENO : STDOUT_FILENO;
    return isatty(fd) != 0 ? fd : -1;
}

}  // namespace

size_t terminal_columns(int fd) {
    winsize size{};
    if (fd < 0 || isatty(fd) == 0) {
        return 0;
    }
    return ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsualColumns;
}

std::string progress_line(int status, int percent, size_t columns) {
    const State *state = _find(status);
    if (state == nullptr) {
        return {};
    }
    percent = std::clamp(percent, 0, 100);
    const std::string text = std::to_string(percent) + " % " + state->name;
    constexpr size_t kFrame = 6;  // "   [" and "] "
    if (columns < text.size() + kFrame + kLeastBar) {
        return text.substr(0, columns);
    }
    const size_t width = std::min(kBarWidth, columns - text.size() - kFrame);
    const size_t full = static_cast<size_t>(percent) * width / 100;
    return "   [" + std::string(full, '#') + std::string(width - full, '.') + "] " + text;
}

ProgressBar::ProgressBar(std::ostream &out) : out_(out), terminal_(_terminal_of(out)) {
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
    if (terminal_ >= 0 && !last_.empty()) {
        out_ << '\n';
    }
    out_.flush();
}

ProgressBar::FileMark ProgressBar::_mark() {
    struct stat status {};
    stat(kStatusPath, &status);  // none: zeros
    return {static_cast<int64_t>(status.st_ino), status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

std::string ProgressBar::await_end() const {
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
        if (now != first_ && state != nullptr && state->final) {
            return {};
        }
        const auto idle = std::chrono::steady_clock::now() - changed;
        if (idle <= kIdle) {
            continue;
        }
        std::string left;
        // A check has no lock, but is soon in the state that waits for the cloud.
        bool runs = state != nullptr && state->number == kAsking;
        for (const ImageLock &lock : image_locks()) {
            runs = runs || lock.held;
            left += lock.there && !lock.held ? left_over(lock) + "\n" : "";
        }
        if (!runs || idle > kStuck) {
            return left;
        }
    }
}

void ProgressBar::_show() {
    const auto [number, percent] = _status();
    const size_t columns = terminal_columns(terminal_);
    const int shown = columns > 0 ? percent : percent / 10 * 10;
    // The last column stays free: some terminals begin a new line there.
    const std::string line = progress_line(number, shown, columns > 0 ? columns - 1 : kUsualColumns);
    if (line.empty() || (line == last_ && columns == columns_)) {
        return;
    }
    if (columns > 0) {
        // In a terminal that became narrower the old line stands on several.
        const size_t above = last_.empty() ? 0 : (last_.size() - 1) / columns;
        out_ << '\r' << (above > 0 ? "\x1b[" + std::to_string(above) + "A" : "") << "\x1b[J" << line;
    } else {
        out_ << line << '\n';
    }
    out_.flush();
    last_ = line;
    columns_ = columns;
}

}  // namespace emulator
