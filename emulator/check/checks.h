// The checks of each part, in the order in which they run. They run in a private device, whose /tmp and flash
// are emptied before each one; only a part that runs already (Neighbour::socket) is checked on the host.
// What they are given is copied.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "check.h"
#include "probe.h"

namespace emulator::check {

inline constexpr const char *kPlatformPage = "docs/platform.md";
inline constexpr const char *kProtocolPage = "docs/protocol.md";
inline constexpr const char *kKmpdPage = "docs/kmpd.md";

/// libwrapper.so: the records, and the firmware commands (for the accounts: account_checks.h).
[[nodiscard]] Checks store_checks(const Platform &platform);
[[nodiscard]] Checks firmware_checks(const Platform &platform);
/// librsa.so.
[[nodiscard]] Checks rsa_checks(const Platform &platform);

/// A part that is a process, and how it is reached.
struct Neighbour {
    std::vector<std::string>
        command;              ///< the words that start it; empty: the emulator's own, or one that runs
    std::string socket;       ///< of one that runs already; empty: none does
    bool big_endian = false;  ///< the byte order of its processor
};

[[nodiscard]] Checks broker_checks(const Neighbour &broker);
[[nodiscard]] Checks kmpd_checks(const Neighbour &daemon);
[[nodiscard]] Checks service_checks(const Neighbour &service);

}  // namespace emulator::check
