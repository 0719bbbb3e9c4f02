// One run of the program under test: with the library of faults in it, and traced if wanted.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "device.h"
#include "point.h"

namespace emulator::sweep {

/// What befalls a run. Broker and files are not here: they are the device's.
struct Strike {
    std::vector<std::pair<std::string, std::string>> environment;  ///< for the library of faults
    bool traced = false;
    std::string inject;  ///< for `strace -e inject=`, or empty
    std::chrono::milliseconds watchdog{0};
};

struct Outcome {
    Run run;
    bool late = false;       ///< killed by the watchdog
    bool restarted = false;  ///< ended by the restart of the device that it had asked for
    bool reported = false;   ///< the library of faults was there at its end
    std::map<std::string, int> calls;
    std::vector<std::string> open;  ///< targets of the descriptors left open
    bool output_struck = false;     ///< the fault was in standard output itself
    bool struck = false;            ///< the fault was met
    std::string trace;              ///< of a traced run, as `strace -o` writes it
};

/// Whether the program under test runs in another one (an emulator of its processor, valgrind): neither its
/// library calls nor its system calls can be told from that one's.
[[nodiscard]] bool runs_in_another(const std::vector<std::string> &words);

/// What a point of calls, memory, syscalls or kills does to a run.
/// @param skipped  how often each system call is made before the program's own first step.
[[nodiscard]] Strike strike_of(const Point &point, const std::map<std::string, int> &skipped,
                               std::chrono::milliseconds watchdog);

/// Runs a command on the device to its end, to the watchdog's, or to the restart that it asks for.
/// @throws std::system_error   it cannot be started.
/// @throws std::runtime_error  the library of faults is not installed.
[[nodiscard]] Outcome run_struck(Device &device, const std::vector<std::string> &words, const Strike &strike);

/// How often each system call was made, before the program's own first step and after, and the paths in
/// "/tmp" that were named.
struct Trace {
    std::map<std::string, int> before;
    std::map<std::string, int> after;
    std::vector<std::string> paths;
};
/// @param text  Outcome::trace.
[[nodiscard]] Trace read_trace(const std::string &text);

}  // namespace emulator::sweep
