#include "cloud_time.h"

#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

bool cloud_time_text(TimeText *text) {
    timeval now{};
    tm local{};
    gettimeofday(&now, nullptr);
    if (localtime_r(&now.tv_sec, &local) == nullptr) {
        return false;
    }
    const int size = snprintf(text->data(), text->size(), "%04d-%02d-%02d %02d:%02d:%02d.%03d",
                              local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                              local.tm_min, local.tm_sec, static_cast<int>(now.tv_usec) / 1000);
    // A year of five digits has no time stamp of this form.
    return size < static_cast<int>(text->size());
}

char *cloud_time_string() {
    TimeText text;
    return cloud_time_text(&text) ? cloud_string_dup(text.data()) : nullptr;
}

int64_t cloud_time_ms() {
    timeval now{};
    if (gettimeofday(&now, nullptr) != 0) {
        return 0;
    }
    return static_cast<int64_t>(now.tv_sec) * 1000 + static_cast<int>(now.tv_usec) / 1000;
}

char *cloud_string_dup(const char *text) {
    const size_t size = strlen(text) + 1;
    auto *const copy = static_cast<char *>(malloc(size));
    if (copy != nullptr) {
        memcpy(copy, text, size);
    }
    return copy;
}
