// Faults that people name in words while a device runs ("the next answer is -20580", "cut the download at 40
// %"), and the actions that they stand for. An action is a JSON object with one of these:
//   "on"        a rule of the broker, as in a scenario
//   "do"        a rule of the image server; "drop_after" and "stall_after" may be a share of the image
//   ("40%") "link"      the link to the cloud: that number       "logic"   the broker's mode "broker"
//   "restart", "stop", "start"               "download"  "cut", "stall", "go": the transfers at work
//   "tmp_free"  bytes that /tmp still takes; null: as many as ever
//   "device"    "restart"                                "clear"   true: what was injected holds no longer
#pragma once

#include <string>
#include <string_view>

#include "journal.h"

namespace emulator {

/// What a text means: JSON of an action, or words of the table. Order and little words do not count.
/// @throws std::invalid_argument  nothing of the kind is known.
[[nodiscard]] json parse_fault(const std::string &text);

/// The words and what they do, a line each.
[[nodiscard]] std::string fault_help();

/// Refuses an action that nothing could follow. Rules are checked by those who get them.
/// @throws std::invalid_argument
void check_action(const json &action);

}  // namespace emulator
