// What a command costs on the device, as a document:
//   {"command": [...], "machine": "mips", "printed": "0", "status": 0,
//    "flash": {"total": BYTES, "files": {NAME: BYTES, ...}, "unstripped": [NAME, ...]},
//    "memory": {"resident_kib": N, "private_kib": N},
//    "system_calls": {"total": N, "by_name": {NAME: N, ...}},
//    "wire": {"messages": N, "bytes": N, "by_name": {NAME: {"messages": N, "bytes": N}, ...}},
//    "written": {"total": BYTES, "files": {PATH: BYTES, ...}},
//    "time": {"rounds": N, "wall_us": SPREAD, "processor_us": SPREAD,
//             "true": {"wall": SPREAD, "processor": SPREAD}, "against": the same, and "command"}}
// SPREAD: {"median", "low", "high"} (race.h); "true" and "against" are quotients. "memory" is there only for
// a program of this machine's own processor: an emulator's memory is not the program's. "unstripped", "time"
// and "against" only where there is something in them.
#pragma once

#include <string>
#include <vector>

#include "device.h"

namespace emulator {

struct CostOptions {
    std::vector<std::string> command;  ///< "cloud_msg" as its first word: see Device::run
    std::string before;  ///< shell command that puts the device into the state wanted, before each run
    std::vector<std::string> against;      ///< command to compare the times with; empty: none
    std::vector<std::string> other_files;  ///< what goes into the flash with it, and is not loaded
    int rounds = 0;                        ///< of the times; 0: not measured
};

/// Runs a command on the device, once watched, then in rounds. Empties the device's journal.
/// @throws std::system_error or std::runtime_error  it cannot be started, or what comes before it fails.
[[nodiscard]] json measure_cost(Device &device, const CostOptions &options);

}  // namespace emulator
