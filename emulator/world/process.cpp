#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <stdexcept>
#include <system_error>

namespace emulator {
namespace {

std::vector<std::string> _environment(const RunOptions &options) {
    std::map<std::string, std::string> values;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const size_t equals = text.find('=');
        values[text.substr(0, equals)] = equals == std::string::npos ? "" : text.substr(equals + 1);
    }
    for (const auto &[name, value] : options.environment) {
        values[name] = value;
    }
    std::vector<std::string> entries(values.size());
    std::transform(values.begin(), values.end(), entries.begin(),
                   [](const auto &pair) { return pair.first + '=' + pair.second; });
    return entries;
}

// Files in memory catch the output: unlike a pipe they never fill up, and a script left in the
// background does not keep the reader waiting.
Descriptor _memory_file(const std::string &content) {
    Descriptor fd(memfd_create("stdio", MFD_CLOEXEC));
    if (!fd.ok() || write(fd.get(), content.data(), content.size()) < 0) {
        throw std::system_error(errno, std::generic_category(), "memory file");
    }
    lseek(fd.get(), 0, SEEK_SET);
    return fd;
}

std::string _content(int fd) {
    std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    const ssize_t size = pread(fd, text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return text;
}

}  // namespace

std::vector<char *> exec_pointers(std::vector<std::string> &texts) {
    std::vector<char *> pointers(texts.size() + 1, nullptr);
    std::transform(texts.begin(), texts.end(), pointers.begin(),
                   [](std::string &text) { return text.data(); });
    return pointers;
}

Process::Process(std::vector<std::string> argv, const RunOptions &options)
    : argv_(std::move(argv)), watchdog_(options.watchdog) {
    std::vector<std::string> entries = _environment(options);
    const Descriptor input = _memory_file(options.input);
    out_ = _memory_file({});
    err_ = _memory_file({});
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.get(), 0);
    posix_spawn_file_actions_adddup2(&actions, out_.get(), 1);
    posix_spawn_file_actions_adddup2(&actions, err_.get(), 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // As from a shell: what the calling thread blocks (a server's, SIGPIPE) is not for the program.
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
    const int error = posix_spawnp(&pid_, argv_.at(0).c_str(), &actions, &attributes,
                                   exec_pointers(argv_).data(), exec_pointers(entries).data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), argv_.at(0));
    }
    pidfd_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));  // close-on-exec by itself
}

Process::Process(Process &&other) noexcept
    : argv_(std::move(other.argv_)),
      watchdog_(other.watchdog_),
      pid_(std::exchange(other.pid_, -1)),
      pidfd_(std::move(other.pidfd_)),
      out_(std::move(other.out_)),
      err_(std::move(other.err_)),
      ended_(std::exchange(other.ended_, true)),
      run_(std::move(other.run_)) {}

Process::~Process() {
    if (!ended_) {
        ::kill(-pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

bool Process::running() {
    pollfd end{pidfd_.get(), POLLIN, 0};
    return !ended_ && poll(&end, 1, 0) == 0;
}

std::string Process::out() const {
    return _content(out_.get());
}

std::string Process::err() const {
    return _content(err_.get());
}

void Process::kill(int signal) {
    if (!ended_) {
        ::kill(pid_, signal);
    }
}

Run Process::wait() {
    if (ended_) {
        return run_;
    }
    pollfd end{pidfd_.get(), POLLIN, 0};
    const auto deadline = std::chrono::steady_clock::now() + watchdog_;
    int ready = 0;
    do {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        ready = poll(&end, 1, static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0)));
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) {
        ::kill(-pid_, SIGKILL);
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    ended_ = true;
    run_.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run_.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    run_.out = out();
    run_.err = err();
    if (ready == 0) {
        throw std::runtime_error(argv_[0] + " did not end in time and was killed. It wrote:\n" + run_.out +
                                 run_.err);
    }
    return run_;
}

}  // namespace emulator
