// The image server of a device that is used by hand, as the scenario's "image" wants it:
//   {"rules": [...], "tls": true, "trusted": false}
// rules: as in image_server.h. tls: HTTPS, with a new certificate that is its own authority.
// trusted: whether the device trusts it; true when left out.
#pragma once

#include <memory>

#include "image_server.h"

namespace emulator {

/// Makes the server. Where the device is to trust it, its file of authorities gets one more; the host's file
/// stays as it is. Call it once in a device. The journal must outlive the server.
/// @param image  the scenario's member; an empty object: HTTP, and slow enough to watch.
/// @throws std::invalid_argument  a name or a value that "image" or its rules do not have;
///     std::runtime_error or std::system_error, no server or no certificate is to be had.
[[nodiscard]] std::unique_ptr<ImageServer> make_image_server(Journal &journal, const json &image);

/// Its rules where the scenario has none: each image comes slowly enough to watch.
[[nodiscard]] json slow_image_rules();

}  // namespace emulator
