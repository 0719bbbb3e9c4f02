// The console log, and small text helpers shared by all modules.
//
// The log goes to the device's console, never to standard output, which carries only results. Each
// message is one open, one write and one close: there is no shell in between, so text from the
// cloud appears as it is. Safe in any thread; nothing is kept between calls.
#pragma once

#include <semaphore.h>

#include <cstdarg>
#include <cstddef>

/// Longest console message in characters; longer ones are cut.
inline constexpr size_t kConsoleMessageMax = 4904;

// A build that must be reproducible gives the date and time itself.
#ifndef CLOUD_BUILD_DATE
#define CLOUD_BUILD_DATE __DATE__
#endif
#ifndef CLOUD_BUILD_TIME
#define CLOUD_BUILD_TIME __TIME__
#endif

/// Writes a formatted message and a newline to the console, for logs with a prefix of their own.
/// @return 0; -1 when it cannot be formatted or the console not be written.
int cloud_util_vprintf(const char *fmt, va_list arguments) __attribute__((format(printf, 1, 0)));

/// What CLOUD_LOG does. Its three console messages (prefix, text, empty line) go out in one write: that costs
/// a third, and those of two threads do not mix. A console that cannot be written is ignored.
/// @param origin  beginning of the prefix, up to the function's name.
void cloud_logMessage(const char *origin, const char *function, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

/// Logs one message of the program: where it comes from, the text, and a closing empty line, each
/// a console message of its own.
#define CLOUD_LOG(...)                                                                                \
    cloud_logMessage("[" CLOUD_BUILD_DATE "-" CLOUD_BUILD_TIME "][" __FILE__ ":", __func__, __LINE__, \
                     __VA_ARGS__)

/// Reports a broken precondition on standard error in the form of assert() and aborts.
[[noreturn]] void cloud_assertFail(const char *text, const char *file, int line, const char *function);

/// A precondition that holds in every build: its text is part of the interface, so it is given as it
/// is printed. (assert() would go with NDEBUG, and words the text after the compiler's macros.)
#define CLOUD_ASSERT(condition, text) \
    ((condition) ? static_cast<void>(0) : cloud_assertFail(text, __FILE__, __LINE__, __func__))

/// Copies at most n - 1 characters of src and always terminates; the rest of dest up to n is zeroed.
/// @param n  bytes of dest, including the terminator. Null pointers or n = 0 abort.
void cstr_strncpy(char *dest, const char *src, size_t n);

/// The file name of a URL: what follows its last slash.
/// @return a pointer into url; the whole of it when it has no slash; null for a null or empty url, one
///         that ends in a slash or whose only slash comes first (logged, except for null).
[[nodiscard]] const char *cloud_getFilename(const char *url);

/// Sleeps whole seconds; a signal does not shorten it. @return 0.
int cloud_sleep(unsigned int seconds);

// Interface only: no command calls what follows.

/// cloud_util_vprintf with its arguments in place. @return as that.
int cloud_util_printf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/// Reads the value of one "key=value" line of a text (the key in any letter case, at a line start).
/// @param fmt  a scanf format of one conversion. "%s" takes the rest of the line; "%c" gives the digit's
///             value. @param out  receives the conversion; big enough for it.
/// @return 1 when the key is there, even if its value does not convert; 0 when not (logged), or for a null
///         argument. A key of more than 1022 characters is never there.
/// Contract: an empty value stores one zero byte, whatever the format; "%c" then takes '0' off it as well.
[[nodiscard]] int cloud_getSpecificToken(const char *text, const char *key, const char *fmt, void *out);

/// Copies rawStr to dstStr with every line break, real or written as an escape, turned into "<br/>".
/// Null arguments and missing memory are logged, and dstStr stays as it is.
/// @param size  bytes of dstStr, above 0. From the first break on that does not fit the text is dropped.
void cloud_replaceNewlineWithHtmlBR(const char *rawStr, char *dstStr, size_t size);

/// Copies src to dst (zeroed by the caller, `size` bytes) with each `pattern` turned into "<br/>".
void cloud_replaceStrWithHtmlBR(char *src, const char *pattern, char *dst, size_t size);

/// Contract: destroys a copy of a semaphore; the caller's own stays as it is. @return 1.
int cloud_semDestroy(sem_t sem);

/// Writes a 16-byte digest as 32 upper-case hexadecimal characters and a terminator.
/// @param out  33 bytes.
/// @return 0; -1 for a null argument.
[[nodiscard]] int cloud_digestToHexStr(const unsigned char *digest, char *out);
