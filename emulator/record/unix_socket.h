// UNIX sockets on which the neighbours listen, and whole messages on them.
#pragma once

#include <sys/un.h>

#include <string>
#include <string_view>

#include "descriptor.h"

namespace emulator {

/// Fills the buffer. @return false at an end before that: the buffer then has what came.
[[nodiscard]] bool read_all(int fd, std::string &buffer);

/// Writes to a socket; a peer that is gone is left to the next read.
void write_all(int fd, std::string_view bytes);

[[nodiscard]] sockaddr_un socket_address(std::string_view path);

/// A close-on-exec socket bound to the path, in place of whatever stands there.
/// @param type  SOCK_STREAM or SOCK_DGRAM, and SOCK_NONBLOCK if wanted.
/// @throws std::system_error
[[nodiscard]] Descriptor bound_socket(int type, const std::string &path);

}  // namespace emulator
