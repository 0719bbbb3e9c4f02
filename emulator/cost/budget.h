// Limits of what commands may cost, a file that goes with the source:
//   {BUILD: {COMMAND: {"before": TEXT, "limits": {...}}, ...}, ...}
// "limits" has the shape of a cost (cost.h) and holds what is to be held: a number is the most that is
// allowed, a text is what it must be, of an object each member, and what is in the cost's object but not in
// the limit's is free. A limit for something that was not measured is broken.
#pragma once

#include <string>
#include <vector>

#include "journal.h"

namespace emulator {

/// @return a line for each figure above its limit: "wire.messages is 5, the budget is 4".
[[nodiscard]] std::vector<std::string> over_budget(const json &cost, const json &limits);

/// The commands of one build, a part of `budget`.
/// @throws std::invalid_argument  there is none of that name, or its shape is another; the text names it.
[[nodiscard]] const json &budget_of(const json &budget, const std::string &build);

}  // namespace emulator
