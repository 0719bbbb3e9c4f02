#include "cloud_log.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>

#include "cloud_secret.h"
#include "cloud_switch.h"
#include "cloud_time.h"

namespace {

constexpr size_t kUsualLineRoom = 512;  // on the stack; longer ones (whole bodies) take heap
constexpr size_t kPrefixRoom = 192;     // of the units and functions that there are, with a margin

// A line that nobody reads raises SIGPIPE. It must not reach the handler, which takes a lost broker for its
// cause and tears the instance down under the call that logs: it is blocked, and taken back.
void _write_line(std::string_view line) {
    sigset_t pipe;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    sigemptyset(&pending);
    pthread_sigmask(SIG_BLOCK, &pipe, &before);
    sigpending(&pending);
    while (!line.empty()) {
        const ssize_t written = write(STDOUT_FILENO, line.data(), line.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            if (errno == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
                const timespec atOnce{};
                sigtimedwait(&pipe, nullptr, &atOnce);
            }
            break;
        }
        line.remove_prefix(static_cast<size_t>(written));
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace

bool cloud_log_on(LogLevel level) {
    const int saved = errno;
    const auto lowest = static_cast<size_t>(level);
    size_t at = std::size(kLogSwitchPaths) - 1;
    while (at >= lowest && !cloud_isSwitchedOn(kLogSwitchPaths[at])) {
        --at;
    }
    errno = saved;
    return at >= lowest;
}

void cloud_log_write(LogLevel level, const LogSite &site, const char *format, ...) {
    const int saved = errno;
    std::array<char, kUsualLineRoom> usual{};
    TimeText stamp;
    const int prefix =
        snprintf(usual.data(), kPrefixRoom, "%s | %5s | pid:%d | %s:%d | %s | - ",
                 cloud_time_text(&stamp) ? stamp.data() : "", level == LogLevel::kDebug ? "debug" : "error",
                 static_cast<int>(getpid()), site.unit, site.line, site.function);
    const size_t begun = std::min(static_cast<size_t>(std::max(prefix, 0)), kPrefixRoom - 1);
    // The last character is the newline's.
    const size_t room = usual.size() - begun - 1;
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it does not see the line above
    const int wanted = vsnprintf(&usual[begun], room, format, arguments);
    va_end(arguments);
    size_t size = std::min(static_cast<size_t>(std::max(wanted, 0)), room - 1);
    char *line = usual.data();
    SecretText whole;  // bodies hold passwords
    if (wanted > static_cast<int>(size)) {
        whole.reset(static_cast<char *>(malloc(begun + static_cast<size_t>(wanted) + 2)));
    }
    if (whole != nullptr) {
        line = whole.get();
        size = static_cast<size_t>(wanted);
        memcpy(line, usual.data(), begun);
        va_start(arguments, format);
        vsnprintf(line + begun, size + 1, format, arguments);
        va_end(arguments);
    }
    line[begun + size] = '\n';
    line[begun + size + 1] = '\0';
    _write_line({line, begun + size + 1});
    errno = saved;
}

void cloud_log_text(const char *format, ...) {
    const int saved = errno;
    std::array<char, kUsualLineRoom> line;
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it does not see the line above
    const int wanted = vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    const size_t size = std::min(static_cast<size_t>(std::max(wanted, 0)), line.size() - 1);
    line[size] = '\n';
    _write_line({line.data(), size + 1});
    errno = saved;
}
