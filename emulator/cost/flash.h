// What a program takes in flash: its own file and the libraries that it loads.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace emulator {

/// Processor of a program or library: "mips", "x86_64", ..., "machine N"; "" for a file that is neither.
[[nodiscard]] std::string machine_of(const std::string &path);

struct FlashFile {
    std::string path;
    uint64_t bytes = 0;
    bool stripped = true;  ///< false: it holds symbols that no image would
};

/// Of some files, the programs and libraries for a machine.
[[nodiscard]] std::vector<FlashFile> flash_files(const std::vector<std::string> &paths,
                                                 const std::string &machine);

}  // namespace emulator
