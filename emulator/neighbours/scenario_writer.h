// The documents with which the emulated device has the conversation of a record again: what its cloud answers
// by itself goes into the cloud's document, everything else becomes rules of a scenario.
#pragma once

#include <vector>

#include "conversation.h"
#include "journal.h"

namespace emulator {

struct Documents {
    json scenario;  ///< what --scenario takes
    json cloud;     ///< what --cloud takes
};

/// @param record  of conversations().
[[nodiscard]] Documents documents_of(const std::vector<Conversation> &record);

}  // namespace emulator
