// The handshake of a new connection.
#pragma once

#include "cloud_log.h"

/// Receives the broker's greeting on a new connection.
/// @param site  whose connection it is: a failure is logged in that name.
/// @param code  what the log calls the broker's error code there.
/// @return whether the broker lets this connection in.
[[nodiscard]] bool cloud_api_accept(int fd, const LogSite &site, const char *code);
