// A command that runs on this terminal and gets its signals, until it ends or the device restarts.
#pragma once

#include <string>
#include <vector>

#include "control.h"

namespace emulator {

inline constexpr int kRestarted =
    -1;  ///< Instead of a status: the device has restarted, the command is gone.

/// Runs a command on this terminal, as a shell would, and notes it in the journal.
/// @return its exit status (128 and more: by a signal), 127 when it cannot be started, or kRestarted.
/// @throws std::system_error  the device's flash cannot be watched, or the device not restarted.
[[nodiscard]] int run_in_front(Control &control, std::vector<std::string> words);

}  // namespace emulator
