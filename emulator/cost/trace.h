// One run of a program, watched at each of its system calls: what it asks of the kernel, the most memory that
// it keeps, which files it is made of, and how much it writes to files. Sampling from outside comes too late
// or too early for programs that live a few milliseconds, and the kernel's own figures of a finished process
// are off by most of a megabyte. What a program touches stays resident until a call takes it away, so the
// most is seen where a call begins. The programs that it starts are not followed.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "process.h"

namespace emulator {

struct Trace {
    Run run;
    long resident_kib = 0;             ///< the most that was mapped and in memory
    long private_kib = 0;              ///< the most of it that no file backs: stack, heap, changed data
    std::map<std::string, int> calls;  ///< system calls by name, from the program's first to its end
    std::vector<std::string> mapped;   ///< files that were mapped when it ended
    std::map<std::string, uint64_t> written;  ///< bytes by file, under the name that the file has in the end
};

/// Runs a program to its end. Other children of the calling thread that end meanwhile are reaped here, and
/// their status is lost.
/// @param folders  those whose files count as written.
/// @throws std::system_error  it cannot be started or watched.
[[nodiscard]] Trace trace(std::vector<std::string> argv, const std::vector<std::string> &folders);

}  // namespace emulator
