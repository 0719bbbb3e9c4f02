// extender sweep: one run for each point and fault, judged, with a table and the failures at the end.
#pragma once

#include <string>
#include <vector>

#include "commands.h"

namespace emulator::sweep {

/// What is asked for.
struct Options {
    std::vector<std::string> kinds;  ///< of faults
    size_t limit = 0;                ///< most points a command; 0: all
    unsigned seed = 1;
    unsigned jobs = 1;
    long watchdog_s = 60;
    bool json_output = false;
    std::vector<std::string> only;  ///< points
    std::string scenario;           ///< files, or ""
    std::string cloud;
};

/// Sweeps the commands; the table goes to standard output, progress to standard error.
/// @return 0, or 1 when something fell.
/// @throws std::runtime_error  a command cannot be swept, or strace is missing; the text says why.
[[nodiscard]] int sweep_over(const Options &options, const std::vector<Command> &commands);

/// A worker, a process of its own that enters a device: surveys, then judges the points that standard input
/// lists. Prints a JSON line for the survey and one for each point. @return 0.
[[nodiscard]] int work(const Options &options, const Command &command);

}  // namespace emulator::sweep
