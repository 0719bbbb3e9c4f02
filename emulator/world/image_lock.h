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

/// Both locks as they stand now. Where one is there, this reads the descriptors of every process: too slow
/// for each frame of a drawing.
[[nodiscard]] std::vector<ImageLock> image_locks();

/// A sentence for people on a lock that was left over, with the command that removes it.
[[nodiscard]] std::string left_over(const ImageLock &lock);

}  // namespace emulator
