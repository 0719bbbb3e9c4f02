#include "cockpit.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "firmware.h"
#include "namespace.h"

namespace emulator {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kLookEvery{50};
constexpr int kLooksAState = 5;
constexpr size_t kLongestText = 64U << 10U;
constexpr size_t kLongestFile = 64U << 10U;
constexpr size_t kMostCommands = 100;  // that are remembered

// The line's words where it has no sign that a shell treats specially; else a shell that is given the line.
std::vector<std::string> _argv(const std::string &line) {
    const bool assignment = line.find('=') < line.find(' ');  // a cipher ends in such a sign, too
    if (assignment || line.find_first_of("'\"\\$&|;<>()*?[]#~%{}!`\n") != std::string::npos) {
        return {"sh", "-c", line};
    }
    std::istringstream words(line);
    return {std::istream_iterator<std::string>(words), {}};
}

const char *_kind(fs::file_type type) {
    switch (type) {
        case fs::file_type::regular:
            return "file";
        case fs::file_type::directory:
            return "folder";
        case fs::file_type::symlink:
            return "link";
        case fs::file_type::socket:
            return "socket";
        case fs::file_type::fifo:
            return "pipe";
        default:
            return "other";
    }
}

}  // namespace

Cockpit::Cockpit(Control &control) : control_(control) {
    watcher_ = std::thread([this] { _watch(); });
}

Cockpit::~Cockpit() {
    stopping_ = true;
    watcher_.join();
    end_other_processes();
    for (Command &command : commands_) {
        command.thread.join();
    }
}

int Cockpit::start(const std::string &line) {
    if (_argv(line).empty()) {
        throw std::invalid_argument("an empty line is no command");
    }
    const std::lock_guard lock(mutex_);
    Command &command = commands_.emplace_back();
    command.id = version_ + 1;
    command.line = line;
    command.version = ++version_;
    command.thread = std::thread([this, &command] { _run(command); });
    const auto old =
        std::find_if(commands_.begin(), commands_.end(), [](const Command &one) { return one.ended; });
    if (commands_.size() > kMostCommands && old != commands_.end()) {
        old->thread.join();
        commands_.erase(old);
    }
    return command.id;
}

void Cockpit::_run(Command &command) {
    const auto add = [&](std::string_view text) {
        const std::lock_guard lock(mutex_);
        command.text += text;
        if (command.text.size() > kLongestText) {
            command.text.erase(0, command.text.size() - kLongestText);
        }
        command.version = ++version_;
    };
    int status = 0;
    try {
        const Run run = control_.run_command(
            _argv(command.line),
            [&](std::string_view out, std::string_view err) { add(std::string(out) += err); });
        constexpr int kSignals = 128;
        status = run.signal != 0 ? kSignals + run.signal : run.status;
    } catch (const std::exception &error) {  // it does not start
        add(error.what());
        status = kNoCommand;
    }
    const std::lock_guard lock(mutex_);
    command.status = status;
    command.ended = true;
    command.version = ++version_;
}

json Cockpit::runs(int &version) {
    const std::lock_guard lock(mutex_);
    json changed = json::array();
    for (const Command &one : commands_) {
        if (one.version > version) {
            changed.push_back({{"id", one.id},
                               {"line", one.line},
                               {"text", one.text},
                               {"ended", one.ended},
                               {"status", one.status}});
        }
    }
    version = version_;
    return changed;
}

json Cockpit::state(int &version) {
    const std::lock_guard lock(mutex_);
    return std::exchange(version, state_version_) == state_version_ ? json() : state_;
}

// Does the restarts that are due, and looks whether the state has changed.
void Cockpit::_watch() {
    for (int look = 0; !stopping_; ++look) {
        try {
            if (Device::restart_due()) {
                control_.device().restart();
                put_status_file();
            }
            if (look % kLooksAState == 0) {
                json state = control_.state();
                const std::lock_guard lock(mutex_);
                if (state != state_) {
                    state_ = std::move(state);
                    ++state_version_;
                }
            }
        } catch (const std::exception &error) {
            control_.journal().add_scenario_error({{"text", error.what()}});
        }
        std::this_thread::sleep_for(kLookEvery);
    }
}

json Cockpit::files() {
    struct stat tmp {};
    lstat("/tmp", &tmp);
    json list = json::array();
    std::error_code gone;  // files come and go while they are looked at
    for (auto entry =
             fs::recursive_directory_iterator("/tmp", fs::directory_options::skip_permission_denied, gone);
         entry != fs::recursive_directory_iterator(); entry.increment(gone)) {
        struct stat status {};
        if (lstat(entry->path().c_str(), &status) != 0) {
            continue;
        }
        if (status.st_dev != tmp.st_dev) {
            entry.disable_recursion_pending();  // a folder of the host that had to stay
        }
        list.push_back({{"path", entry->path().string()},
                        {"kind", _kind(entry->symlink_status(gone).type())},
                        {"size", status.st_size},
                        {"mode", status.st_mode & 07777U},
                        {"changed", status.st_mtim.tv_sec}});
    }
    return list;
}

std::string Cockpit::file(const std::string &path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status {};
    if (!path.starts_with("/tmp/") || path.find("/../") != std::string::npos || !file.ok() ||
        fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw std::invalid_argument(path + " is no file of /tmp");
    }
    std::string content(kLongestFile, '\0');
    const ssize_t size = read(file.get(), content.data(), content.size());
    content.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
    return content;
}

}  // namespace emulator
