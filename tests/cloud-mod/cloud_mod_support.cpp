#include "cloud_mod_support.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <system_error>

namespace {

constexpr const char *kPath = "/tmp/cloud-brd";
constexpr std::chrono::seconds kWatchdog{60};

std::atomic<int> l_failing{0};
std::atomic<int> l_living{0};
std::atomic<int> l_lstat{0};
thread_local bool l_forbidden = false;

void _touch_heap() {
    if (l_forbidden) {
        _exit(99);
    }
}

bool _fails() {
    _touch_heap();
    return l_failing > 0 && --l_failing == 0;
}

void _must(bool done, const char *what) {
    if (!done) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

void _write_file(const char *path, const std::string &text) {
    std::ofstream(path) << text;
}

// cJSON's allocations are counted, and can be made to fail, as the library's own.
class CountedJson : public testing::Environment {
    void SetUp() override {
        cJSON_Hooks hooks{malloc, free};
        cJSON_InitHooks(&hooks);
    }
};
const auto *const l_counted = testing::AddGlobalTestEnvironment(new CountedJson);

}  // namespace

// The library's calls of these come here (linker option --wrap), the tests' own do as well.
extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void __real_free(void *memory);
int __real_lstat(const char *path, struct stat *status);
void *__wrap_malloc(size_t size) {
    return _fails() ? nullptr : (++l_living, __real_malloc(size));
}
void *__wrap_calloc(size_t count, size_t size) {
    return _fails() ? nullptr : (++l_living, __real_calloc(count, size));
}
void __wrap_free(void *memory) {
    _touch_heap();
    l_living -= memory != nullptr ? 1 : 0;
    __real_free(memory);
}
int __wrap_lstat(const char *path, struct stat *status) {
    ++l_lstat;
    return __real_lstat(path, status);
}
// The signal handlers tear the instance down. That is known not to be signal-safe.
const char *__tsan_default_options() {
    return "report_signal_unsafe=0";
}
}

void fail_allocation(int nth) {
    l_failing = nth;
}

bool allocation_failed() {
    return l_failing == 0;
}

void forbid_heap() {
    l_forbidden = true;
}

int living_allocations() {
    return l_living;
}

void with_each_allocation_failing(const std::function<void()> &work) {
    const int living = l_living;
    int nth = 1;
    for (;; ++nth) {
        fail_allocation(nth);
        work();
        const bool failed = allocation_failed();
        fail_allocation(0);
        ASSERT_EQ(l_living, living) << "allocation " << nth;
        if (!failed) {
            break;
        }
    }
    EXPECT_GT(nth, 2);
}

int lstat_calls() {
    return l_lstat;
}

int open_descriptors() {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return static_cast<int>(std::distance(begin(open), end(open)));
}

std::string frame(int type, std::string_view body) {
    std::string bytes = "\xA1\xB2";
    bytes += static_cast<char>(type / 256);
    bytes += static_cast<char>(type % 256);
    for (const int shift : {24, 16, 8, 0}) {
        bytes += static_cast<char>(body.size() >> shift);
    }
    return bytes.append(body);
}

Broker::Broker(Answer answer, std::vector<std::string> greetings)
    : answer_(std::move(answer)),
      greetings_(std::move(greetings)),
      listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{AF_UNIX, "/tmp/cloud-brd"};
    unlink(kPath);
    _must(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0, "bind");
    _must(listen(listener_, 16) == 0, "listen");
    _must(pipe2(wake_, O_CLOEXEC) == 0, "pipe");
    thread_ = std::thread(&Broker::_run, this);
}

Broker::~Broker() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    static_cast<void>(!write(wake_[1], "", 1));  // an empty pipe takes it
    thread_.join();
    for (const int fd : {listener_, wake_[0], wake_[1]}) {
        close(fd);
    }
    unlink(kPath);
}

void Broker::_run() {
    // A client that left is seen when it is read from.
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
    for (;;) {
        std::vector<pollfd> watched{{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        {
            const std::lock_guard lock(mutex_);
            for (const Connection &connection : connections_) {
                watched.push_back({connection.fd, POLLIN, 0});
            }
        }
        poll(watched.data(), watched.size(), -1);
        const std::lock_guard lock(mutex_);
        if (stopping_) {
            break;
        }
        if (watched[1].revents != 0) {
            char ignored = 0;
            _must(read(wake_[0], &ignored, 1) == 1, "read");
        }
        for (size_t i = 2; i < watched.size(); ++i) {
            if (watched[i].revents != 0 && connections_[i - 2].fd >= 0) {
                _read(static_cast<int>(i) - 2);
            }
        }
        if (watched[0].revents != 0) {
            _accept();
        }
        changed_.notify_all();
    }
    for (size_t i = 0; i < connections_.size(); ++i) {
        _close(static_cast<int>(i));
    }
}

void Broker::_accept() {
    const size_t index = connections_.size();
    connections_.push_back({accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC), {}});
    const std::string &greeting = greetings_[std::min(index, greetings_.size() - 1)];
    if (greeting.empty()) {
        _close(static_cast<int>(index));
        return;
    }
    _must(write(connections_[index].fd, greeting.data(), greeting.size()) > 0, "greet");
}

void Broker::_read(int index) {
    char buffer[4096];
    Connection &connection = connections_[static_cast<size_t>(index)];
    const ssize_t size = read(connection.fd, buffer, sizeof(buffer));
    if (size <= 0) {
        _close(index);
        return;
    }
    connection.input.append(buffer, static_cast<size_t>(size));
    _take_messages(index);
}

void Broker::_take_messages(int index) {
    Connection &connection = connections_[static_cast<size_t>(index)];
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(connection.input[i]); };
    while (connection.fd >= 0 && connection.input.size() >= 8) {
        const auto length = static_cast<size_t>(byte(4) << 24 | byte(5) << 16 | byte(6) << 8 | byte(7));
        if (connection.input.size() < 8 + length) {
            return;
        }
        received_.push_back({index, byte(2) << 8 | byte(3), connection.input.substr(8, length)});
        connection.input.erase(0, 8 + length);
        const auto bytes = answer_(received_.back());
        if (!bytes) {
            _close(index);
        } else if (!bytes->empty()) {
            static_cast<void>(!write(connection.fd, bytes->data(), bytes->size()));
        }
    }
}

void Broker::_close(int index) {
    int &fd = connections_[static_cast<size_t>(index)].fd;
    if (fd >= 0) {
        shutdown(fd, SHUT_RDWR);  // the loop's poll may keep it open for a while
        close(fd);
    }
    fd = -1;
}

void Broker::send(int connection, const std::string &bytes) {
    const std::lock_guard lock(mutex_);
    _must(write(connections_.at(static_cast<size_t>(connection)).fd, bytes.data(), bytes.size()) > 0, "send");
}

void Broker::hang_up(int connection) {
    const std::lock_guard lock(mutex_);
    _close(connection);
}

void Broker::_await(const std::function<bool()> &reached) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kWatchdog, reached)) {
        throw std::runtime_error("the broker waited in vain");
    }
}

Received Broker::await(int type, int nth) {
    Received found;
    _await([&] {
        int seen = 0;
        for (const Received &message : received_) {
            if (message.type == type && ++seen == nth) {
                found = message;
                return true;
            }
        }
        return false;
    });
    return found;
}

void Broker::await_closed(int connection) {
    _await([&] {
        const auto index = static_cast<size_t>(connection);
        return connections_.size() > index && connections_[index].fd < 0;
    });
}

std::vector<Received> Broker::received(int type) {
    const std::lock_guard lock(mutex_);
    std::vector<Received> found;
    for (const Received &message : received_) {
        if (type == 0 || message.type == type) {
            found.push_back(message);
        }
    }
    return found;
}

int Broker::connections() {
    const std::lock_guard lock(mutex_);
    return static_cast<int>(connections_.size());
}

Log::Log(int level) : path_("/tmp/log." + std::to_string(level)) {
    _write_file(path_.c_str(), "");
    testing::internal::CaptureStdout();
}

Log::~Log() {
    raw();
}

std::string Log::raw() {
    if (!open_) {
        return {};
    }
    open_ = false;
    unlink(path_.c_str());
    return testing::internal::GetCapturedStdout();
}

std::vector<std::string> Log::lines() {
    static const std::regex kLine(
        R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) \| (debug|error) \| pid:(\d+) \| ([^ ]*):\d+ \| (\w+) \| - ([^\n]*)\n)");
    static const std::regex kFunction("(cloud_api|cloud_ipc|callback|kxcc|register)_.*");
    std::vector<std::string> lines;
    const std::string text = raw();
    for (std::sregex_iterator line(text.begin(), text.end(), kLine), end; line != end; ++line) {
        // Names that a reader of the log knows, none of a helper.
        EXPECT_TRUE((*line)[4] == "unit" || std::regex_match((*line)[5].str(), kFunction)) << line->str();
        lines.push_back((*line)[2].str() + " " + (*line)[4].str() + ": " + (*line)[6].str());
    }
    return lines;
}

std::string Log::of(const std::string &unit) {
    std::string messages;
    for (const std::string &line : lines()) {
        if (const size_t at = line.find(' ' + unit + ": "); at != std::string::npos) {
            messages += (messages.empty() ? "" : " / ") + line.substr(at + unit.size() + 3);
        }
    }
    return messages;
}
