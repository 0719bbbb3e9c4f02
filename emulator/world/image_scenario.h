// The image server of a device that is used by hand, as the scenario's "image" wants it:
//   {"rules": [...], "tls": true, "trusted": false}
// rules: as in image_server.h. tls: HTTPS, by a certificate that an authority of its own made.
// trusted: whether the device trusts that authority (default).
#pragma once

#include <memory>

#include "image_server.h"

namespace emulator {

/// Makes the server, and the device trust it: its file of authorities gets one more, the host's stays as
/// it is. Call it once in a device.
/// @param image  the scenario's member; an empty object: HTTP, and slow enough to watch.
/// @throws std::invalid_argument  a name or a value that "image" or its rules do not have;
///     std::runtime_error or std::system_error, no server or no certificate is to be had.
[[nodiscard]] std::unique_ptr<ImageServer> make_image_server(Journal &journal, const json &image);

/// Its rules where the scenario has none: each image comes slowly enough to watch.
[[nodiscard]] json slow_image_rules();

}  // namespace emulator
