// A cost (cost.h) as a table for people.
#pragma once

#include <iosfwd>

#include "journal.h"

namespace emulator {

/// Writes the table of one cost.
void print_cost(std::ostream &out, const json &cost);

}  // namespace emulator
