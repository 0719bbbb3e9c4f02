#include "race.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>

#include "process.h"

namespace emulator {
namespace {

// What every run is given in the place of a terminal.
class Quiet {
public:
    Quiet() {
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&actions_, STDOUT_FILENO, STDERR_FILENO);
    }
    ~Quiet() { posix_spawn_file_actions_destroy(&actions_); }
    Quiet(const Quiet &) = delete;
    Quiet &operator=(const Quiet &) = delete;
    [[nodiscard]] const posix_spawn_file_actions_t *get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_{};
};

double _microseconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
}

Times _run(const std::vector<char *> &argv, const Quiet &quiet) {
    const auto begin = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (const int error = posix_spawnp(&pid, argv[0], quiet.get(), nullptr, argv.data(), environ)) {
        throw std::system_error(error, std::generic_category(), argv[0]);
    }
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
    }
    const std::chrono::duration<double, std::micro> wall = std::chrono::steady_clock::now() - begin;
    return {wall.count(), _microseconds(usage.ru_utime) + _microseconds(usage.ru_stime)};
}

}  // namespace

std::vector<std::vector<Times>> race(const std::vector<std::vector<std::string>> &commands, int rounds,
                                     const std::function<void()> &before) {
    const Quiet quiet;
    std::vector<std::vector<std::string>> words = commands;
    std::vector<std::vector<Times>> times(commands.size());
    for (int round = -1; round < rounds; ++round) {  // one for the caches, which does not count
        for (size_t i = 0; i < words.size(); ++i) {
            before();
            const Times one = _run(exec_pointers(words[i]), quiet);
            if (round >= 0) {
                times[i].push_back(one);
            }
        }
    }
    return times;
}

Spread spread(std::vector<double> values) {
    if (values.empty()) {
        return {};
    }
    std::sort(values.begin(), values.end());
    const auto at = [&](size_t quarter) { return values[(values.size() - 1) * quarter / 4]; };
    return {at(2), at(1), at(3)};
}

Spread ratio(std::span<const Times> times, std::span<const Times> to, double Times::*member) {
    std::vector<double> quotients;
    for (size_t i = 0; i < std::min(times.size(), to.size()); ++i) {
        quotients.push_back(times[i].*member / std::max(to[i].*member, 1.0));
    }
    return spread(std::move(quotients));
}

}  // namespace emulator
