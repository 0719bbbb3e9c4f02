// The locks of the firmware commands: files that exist while one runs. A killed run leaves its file, which
// keeps others out until somebody removes it.
#pragma once

#include <string>
#include <vector>

namespace emulator {

struct ImageLock {
    const char *command;  ///< whose lock it is: "download", "update"
    const char *path;
    bool there = false;
    bool held = false;  ///< a process has it open; false of a file that is there: it was left over
};

/// Both locks as they stand now. Looks at every process that may be looked at, so not for each frame.
[[nodiscard]] std::vector<ImageLock> image_locks();

/// What to tell of a lock that was left over: "..." with the command that removes it.
[[nodiscard]] std::string left_over(const ImageLock &lock);

}  // namespace emulator
