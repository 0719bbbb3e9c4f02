// A life of the device, step by step, for people to watch.
#pragma once

#include <cstdio>

namespace emulator {

/// Plays it on standard output. Lives in a process that called enter_device().
/// @param sink  gets the journal's lines, or null; stays the caller's.
/// @return 0; 1 when a step did not end as expected (which is shown).
[[nodiscard]] int play_demo(std::FILE *sink);

}  // namespace emulator
