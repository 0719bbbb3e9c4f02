// The command line of kxcc-tap.
#pragma once

#include <cstdint>

#include "cloud_wire.h"

inline constexpr uint64_t kBytesPerKib = 1024;

/// What is asked for; the texts are the command line's.
struct Options {
    const char *socket = kBrokerPath;
    const char *journal = nullptr;
    uint64_t limitKib = 0;  ///< its bytes fit 64 bits
    bool limited = false;   ///< limitKib was given
    bool wait = false;
    bool restore = false;
};

/// Reads the command line; says on standard error what is wrong with it, and answers --help and --version
/// itself.
/// @return -1: go on; any other: the exit status.
[[nodiscard]] int parse_options(int argc, char **argv, Options *options);
