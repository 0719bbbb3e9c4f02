// The library's log: one line per message on standard output, switched at run time by the files
// "/tmp/log.1" to "/tmp/log.4", where they are regular files of root or the own user. The highest file that
// exists is the level: 4 writes debug and error messages, 1 to 3 error messages only, no file nothing. The
// files are looked for afresh for every message, so a running process can be switched.
//
// "2026-01-31 09:05:07.042 | debug | pid:812 | cloud_api:120 | cloud_api_init | - api init success"
//
// A source that logs names itself with a constant kLogUnit. Safe from any thread.
#pragma once

/// Each the lowest switch file that lets it through.
enum class LogLevel { kError = 1, kDebug = 4 };

/// Is a message of this level written now? Looks for the switch files from 4 downwards and stops at
/// the first; a debug message looks for "/tmp/log.4" alone. Leaves errno as it was.
[[nodiscard]] bool cloud_log_on(LogLevel level);

/// Where a line comes from.
struct LogSite {
    const char *unit;
    const char *function;
    int line;
};

/// Writes one line, with one write and without the C library's lock on standard output. A SIGPIPE that it
/// raises never reaches a handler. Leaves errno as it was. A signal handler may log: a line of at most 510
/// characters takes no memory from the heap (the C library takes some where it first looks up the time zone).
/// @param format    printf format of the message, without the newline; any length of the result is
///                  written whole (cut there only when there is no memory left).
void cloud_log_write(LogLevel level, const LogSite &site, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/// Writes a line as it is, whatever the switch files say; at most 511 characters and the newline. The rest as
/// above.
void cloud_log_text(const char *format, ...) __attribute__((format(printf, 1, 2)));

#define CLOUD_HERE_IN(call) (LogSite{kLogUnit, call, __LINE__})
#define CLOUD_HERE CLOUD_HERE_IN(__func__)

// Macros, so that a line that is switched off evaluates none of its arguments.
#define CLOUD_LOG_FOR(level, site, ...)                \
    do {                                               \
        if (cloud_log_on(level)) {                     \
            cloud_log_write(level, site, __VA_ARGS__); \
        }                                              \
    } while (0)
// For a helper that speaks for one of several calls: the line is its own, the function the call's.
#define CLOUD_LOG_IN(level, call, ...) CLOUD_LOG_FOR(level, CLOUD_HERE_IN(call), __VA_ARGS__)
#define CLOUD_DEBUG(...) CLOUD_LOG_FOR(LogLevel::kDebug, CLOUD_HERE, __VA_ARGS__)
#define CLOUD_ERROR(...) CLOUD_LOG_FOR(LogLevel::kError, CLOUD_HERE, __VA_ARGS__)
#define CLOUD_DEBUG_IN(call, ...) CLOUD_LOG_IN(LogLevel::kDebug, call, __VA_ARGS__)
#define CLOUD_ERROR_IN(call, ...) CLOUD_LOG_IN(LogLevel::kError, call, __VA_ARGS__)
