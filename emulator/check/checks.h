// The checks of each part, in the order in which they run. What a check needs stands in the private device,
// or is reached from it; files that an earlier check left there are gone.
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

/// libwrapper.so: records and accounts, then the firmware commands.
[[nodiscard]] Checks store_checks(const Platform &platform);
[[nodiscard]] Checks firmware_checks(const Platform &platform);
/// librsa.so.
[[nodiscard]] Checks rsa_checks(const Platform &platform);

/// A part that is a process: what keeps it running as long as it lives.
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
