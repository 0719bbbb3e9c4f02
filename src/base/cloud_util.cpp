#include "cloud_util.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "cloud_owner.h"
#include "cloud_path.h"

namespace {

constexpr size_t kMessageRoom = kConsoleMessageMax + 2;  // the newline and the terminator
constexpr char kTrailer[] = "\n\n";                      // an empty line, and the newline of its message
constexpr size_t kKeyRoom = 1024;                        // "<key>=" with its terminator
constexpr int kDigestSize = 16;
constexpr char kHtmlBreak[] = "<br/>";
constexpr size_t kHtmlBreakLength = sizeof(kHtmlBreak) - 1;

// The order makes a pair of carriage return and line feed one break.
constexpr std::array l_newline{"\r\n", "\n\r", "\r", "\n", "\\r\\n", "\\n\\r", "\\r", "\\n"};

[[nodiscard]] bool _write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

// One console message: the text, cut, and a newline.
// @param out  kMessageRoom bytes.
// @return its length; 0 when the text cannot be formatted.
__attribute__((format(printf, 2, 0))) size_t _format_message(char *out, const char *fmt, va_list arguments) {
    const int wanted = vsnprintf(out, kConsoleMessageMax + 1, fmt, arguments);
    if (wanted < 0) {
        return 0;
    }
    const size_t length = std::min(static_cast<size_t>(wanted), kConsoleMessageMax);
    out[length] = '\n';
    return length + 1;
}

__attribute__((format(printf, 2, 3))) size_t _print_message(char *out, const char *fmt, ...) {
    va_list arguments;
    va_start(arguments, fmt);
    const size_t length = _format_message(out, fmt, arguments);
    va_end(arguments);
    return length;
}

// Opened anew each time: the console may change hands while a download runs.
[[nodiscard]] bool _write_console(std::string_view text) {
    const UniqueFd console(open(kConsolePath, O_WRONLY | O_NOCTTY | O_CLOEXEC));
    return console.ok() && _write_all(console.get(), text);
}

// The place of "<key>=" at the start of a line, in any letter case.
const char *_find_token(const char *text, const char *pattern) {
    const size_t length = strlen(pattern);
    const char *match = strcasestr(text, pattern);
    while (match != nullptr && match != text && match[-1] != '\n') {
        match = strcasestr(match + length, pattern);
    }
    return match;
}

}  // namespace

int cloud_util_vprintf(const char *fmt, va_list arguments) {
    std::array<char, kMessageRoom> text;
    const size_t length = _format_message(text.data(), fmt, arguments);
    return length > 0 && _write_console({text.data(), length}) ? 0 : -1;
}

int cloud_util_printf(const char *fmt, ...) {
    va_list arguments;
    va_start(arguments, fmt);
    const int result = cloud_util_vprintf(fmt, arguments);
    va_end(arguments);
    return result;
}

void cloud_logMessage(const char *origin, const char *function, int line, const char *fmt, ...) {
    std::array<char, 2 * kMessageRoom + sizeof(kTrailer)> text;
    size_t length = _print_message(text.data(), "%s%s:%d] ", origin, function, line);
    va_list arguments;
    va_start(arguments, fmt);
    length += _format_message(&text[length], fmt, arguments);
    va_end(arguments);
    memcpy(&text[length], kTrailer, sizeof(kTrailer));
    static_cast<void>(_write_console({text.data(), length + sizeof(kTrailer) - 1}));
}

void cloud_assertFail(const char *text, const char *file, int line, const char *function) {
    fprintf(stderr, "%s: %s:%d: %s: Assertion `%s' failed.\n", program_invocation_short_name, file, line,
            function, text);
    abort();
}

void cstr_strncpy(char *dest, const char *src, size_t n) {
    CLOUD_ASSERT((dest != nullptr) && (src != nullptr), "(dest != ((void *)0)) && (src != ((void *)0))");
    CLOUD_ASSERT(n > 0, "n > 0");
    strncpy(dest, src, n - 1);
    dest[n - 1] = '\0';
}

const char *cloud_getFilename(const char *url) {
    if (url == nullptr) {
        return nullptr;
    }
    const char *slash = strrchr(url, '/');
    const bool first = slash == url;
    const bool last = slash == nullptr ? *url == '\0' : slash[1] == '\0';
    if (first || last) {
        CLOUD_LOG("Get filename failed because URL is invalid!\n");
        return nullptr;
    }
    return slash == nullptr ? url : slash + 1;
}

int cloud_getSpecificToken(const char *text, const char *key, const char *fmt, void *out) {
    if (text == nullptr || key == nullptr || fmt == nullptr || out == nullptr) {
        return 0;
    }
    if (strcmp(fmt, "%s") == 0) {
        fmt = "%[^\n]";  // a text runs to the end of its line, blanks included
    }
    std::array<char, kKeyRoom> pattern;
    const int length = snprintf(pattern.data(), pattern.size(), "%s=", key);
    const bool fits = length > 0 && static_cast<size_t>(length) < pattern.size();
    const char *match = fits ? _find_token(text, pattern.data()) : nullptr;
    if (match == nullptr) {
        CLOUD_LOG("Token %s not found!\n", key);
        return 0;
    }
    const char *value = match + length;
    char *first = static_cast<char *>(out);
    if (*value == '\n') {
        *first = '\0';
    } else {
        // The caller fixes the conversion together with the type of `out`.
        static_cast<void>(sscanf(value, fmt, out));
    }
    if (strcmp(fmt, "%c") == 0) {
        *first = static_cast<char>(*first - '0');
    }
    return 1;
}

void cloud_replaceStrWithHtmlBR(char *src, const char *pattern, char *dst, size_t size) {
    const size_t patternLength = strlen(pattern);
    char *end = dst + strlen(dst);
    size_t used = 0;
    const char *rest = src;
    const char *match = strstr(rest, pattern);
    while (match != nullptr) {
        const auto gap = static_cast<size_t>(match - rest);
        if (gap + kHtmlBreakLength >= size - used) {
            return;  // Contract: a break that does not fit goes, and all behind it.
        }
        memcpy(end, rest, gap);
        memcpy(end + gap, kHtmlBreak, sizeof(kHtmlBreak));
        end += gap + kHtmlBreakLength;
        used += gap + kHtmlBreakLength;
        rest = match + patternLength;
        match = strstr(rest, pattern);
    }
    if (size > used) {
        strncat(end, rest, size - used - 1);
    }
}

void cloud_replaceNewlineWithHtmlBR(const char *rawStr, char *dstStr, size_t size) {
    if (rawStr == nullptr || dstStr == nullptr) {
        CLOUD_LOG("rawStr or dstStr is NULL!\n");
        return;
    }
    // Contract: logged on every call.
    CLOUD_LOG("size of l_newline is %d!\n", static_cast<int>(l_newline.size()));
    const HeapText work(static_cast<char *>(malloc(size)));
    if (work == nullptr) {
        CLOUD_LOG("no memory for %zu bytes of text.", size);
        return;
    }
    cstr_strncpy(work.get(), rawStr, size);
    for (const char *pattern : l_newline) {
        memset(dstStr, 0, size);
        cloud_replaceStrWithHtmlBR(work.get(), pattern, dstStr, size);
        cstr_strncpy(work.get(), dstStr, size);
    }
}

int cloud_sleep(unsigned int seconds) {
    timespec rest{};
    rest.tv_sec = static_cast<time_t>(seconds);
    while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
    }
    return 0;
}

int cloud_semDestroy(sem_t sem) {
    sem_destroy(&sem);
    return 1;
}

int cloud_digestToHexStr(const unsigned char *digest, char *out) {
    if (digest == nullptr || out == nullptr) {
        return -1;
    }
    for (int i = 0; i < kDigestSize; ++i) {
        snprintf(out + static_cast<ptrdiff_t>(2) * i, 3, "%02X", digest[i]);
    }
    return 0;
}
