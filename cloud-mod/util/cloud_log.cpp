#include "cloud_log.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "cloud_ipc.h"
#include "cloud_owner.h"

namespace {

constexpr size_t kUsualMessageSize = 256;  // on the stack; longer ones (whole bodies) take heap

// The switch files, the most talkative first.
constexpr std::array kSwitches{"/tmp/log.4", "/tmp/log.3", "/tmp/log.2", "/tmp/log.1"};

}  // namespace

bool cloud_log_on(LogLevel level) {
    const int saved = errno;
    const auto *const end = level == LogLevel::kDebug ? kSwitches.begin() + 1 : kSwitches.end();
    const bool on =
        std::any_of(kSwitches.begin(), end, [](const char *path) { return access(path, F_OK) == 0; });
    errno = saved;
    return on;
}

void cloud_log_write(LogLevel level, const LogSite &site, const char *format, ...) {
    const int saved = errno;
    std::array<char, kUsualMessageSize> usual{};
    HeapText whole;
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it does not see the line above
    const int size = vsnprintf(usual.data(), usual.size(), format, arguments);
    va_end(arguments);
    if (size >= static_cast<int>(usual.size())) {
        whole.reset(static_cast<char *>(malloc(static_cast<size_t>(size) + 1)));
        if (whole != nullptr) {
            va_start(arguments, format);
            vsnprintf(whole.get(), static_cast<size_t>(size) + 1, format, arguments);
            va_end(arguments);
        }
    }

    TimeText stamp;
    printf("%s | %5s | pid:%d | %s:%d | %s | - %s\n", cloud_time_text(&stamp) ? stamp.data() : "",
           level == LogLevel::kDebug ? "debug" : "error", static_cast<int>(getpid()), site.unit, site.line,
           site.function, whole != nullptr ? whole.get() : usual.data());
    errno = saved;
}
