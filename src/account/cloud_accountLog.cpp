#include "cloud_accountLog.h"

#include <cstdarg>

namespace cloud_account {

void _msg_log(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    cloud_util_vprintf(format, arguments);
    va_end(arguments);
}

}  // namespace cloud_account
