// The account commands' console log. Contract: each line begins with "[error]", whatever its weight.
#pragma once

#include "cloud_util.h"

namespace cloud_account {

/// Writes a formatted message and a newline to the console; bounds as cloud_util_printf.
void _msg_log(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// The function and line that a message speaks for, where a helper finds the fault on its behalf.
struct Caller {
    const char *function;
    int line;
    static Caller here(const char *function = __builtin_FUNCTION(), int line = __builtin_LINE()) {
        return {function, line};
    }
};

}  // namespace cloud_account

#define MSG_LOG_FOR(caller, text, ...)                                \
    cloud_account::_msg_log("[error][%s:%d]" text, (caller).function, \
                            (caller).line __VA_OPT__(, ) __VA_ARGS__)
#define MSG_LOG(text, ...) \
    cloud_account::_msg_log("[error][%s:%d]" text, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
