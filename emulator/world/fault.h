// Faults that people name in words while a device runs ("the next answer is -20580", "cut the download at 40
// %"), and the actions that they stand for. An action is a JSON object with one of these:
//
//   "on"        a rule of the broker, as in a scenario
//   "do"        a rule of the image server; "drop_after" and "stall_after" may be a share of the largest
//               image ("40%")
//   "link"      the status of the link to the cloud, a number
//   "logic"     the broker's mode, a number
//   "broker"    "restart", "stop" or "start"
//   "download"  what happens to the transfers at work: "cut", "stall" or "go"
//   "tmp_free"  bytes that /tmp still takes; null: no limit but the usual one
//   "device"    "restart"
//   "clear"     true: takes back what was injected
#pragma once

#include <string>
#include <string_view>

#include "journal.h"

namespace emulator {

/// @param text  JSON of an action, or words of the table, in any order; words like "the" are skipped.
/// @return the action.
/// @throws std::invalid_argument  the text is neither; for words the message lists those that are known.
[[nodiscard]] json parse_fault(const std::string &text);

/// The words and what they do, a line each.
[[nodiscard]] std::string fault_help();

/// Checks an action that is no rule; rules are checked by the broker and the image server.
/// @throws std::invalid_argument  it has an unknown member or value, or does not do exactly one thing.
void check_action(const json &action);

}  // namespace emulator
