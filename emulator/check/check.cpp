#include "check.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "descriptor.h"

namespace emulator::check {
namespace {

// What the child writes: a letter for the verdict, then its text. A child that crashes writes nothing.
constexpr char kPassedLetter = 'p';
constexpr char kSkippedLetter = 's';
constexpr char kFailedLetter = 'f';

std::string _told_by(const Check &check) {
    try {
        check.work();
        return {kPassedLetter};
    } catch (const Skipped &reason) {
        return kSkippedLetter + std::string(reason.what());
    } catch (const std::exception &reason) {
        return kFailedLetter + std::string(reason.what());
    }
}

// @return false when the deadline came before the end.
bool _read_until_end(int fd, std::chrono::steady_clock::time_point deadline, std::string &text) {
    std::array<char, 4096> buffer{};
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd input{fd, POLLIN, 0};
        const int ready = poll(&input, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        if (ready == 0) {
            return false;
        }
        if (ready < 0) {
            continue;
        }
        const ssize_t size = read(fd, buffer.data(), buffer.size());
        if (size == 0 || (size < 0 && errno != EINTR)) {
            return true;
        }
        text.append(buffer.data(), static_cast<size_t>(std::max<ssize_t>(size, 0)));
    }
}

Result _verdict(const std::string &told, int status) {
    if (told.empty()) {
        return {Verdict::kFailed, "the check itself was ended by signal " + std::to_string(WTERMSIG(status))};
    }
    const std::string why = told.substr(1);
    switch (told[0]) {
        case kPassedLetter:
            return {Verdict::kPassed, why};
        case kSkippedLetter:
            return {Verdict::kSkipped, why};
        default:
            return {Verdict::kFailed, why};
    }
}

}  // namespace

void require(bool condition, const std::string &otherwise) {
    if (!condition) {
        throw Failed(otherwise);
    }
}

Result run_check(const Check &check, std::chrono::seconds watchdog) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    const auto begun = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        setpgid(0, 0);
        const std::string told = _told_by(check);
        _exit(write(writing.get(), told.data(), told.size()) < 0 ? 1 : 0);
    }
    setpgid(child, child);  // whoever comes first
    writing.reset();
    std::string told;
    const bool ended = _read_until_end(reading.get(), begun + watchdog, told);
    kill(-child, SIGKILL);  // and what it left
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    Result result =
        ended ? _verdict(told, status)
              : Result{Verdict::kFailed, "no end within " + std::to_string(watchdog.count()) + " seconds"};
    result.time =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begun);
    return result;
}

}  // namespace emulator::check
