// UNIX sockets on which the neighbours listen, and whole messages on them.
#pragma once

#include <sys/un.h>

#include <string>
#include <string_view>

#include "descriptor.h"

namespace emulator {

/// Fills the buffer to its size.
/// @return false at an end or an error before that; the buffer then holds what came.
[[nodiscard]] bool read_all(int fd, std::string &buffer);

/// Writes all bytes to a socket. Errors are not reported: that a peer is gone shows at the next read.
void write_all(int fd, std::string_view bytes);

/// A path that does not fit (107 bytes) is cut.
[[nodiscard]] sockaddr_un socket_address(std::string_view path);

/// A close-on-exec socket bound to the path, in place of whatever stands there.
/// @param type  SOCK_STREAM or SOCK_DGRAM, and SOCK_NONBLOCK if wanted.
/// @throws std::system_error  it cannot be made or bound; the text names the path.
[[nodiscard]] Descriptor bound_socket(int type, const std::string &path);

}  // namespace emulator
