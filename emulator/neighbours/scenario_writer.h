// The documents with which the emulated device holds the conversation of a record: what its cloud explains by
// itself goes into the cloud's document, everything else becomes rules of a scenario.
#pragma once

#include <vector>

#include "conversation.h"
#include "journal.h"

namespace emulator {

struct Documents {
    json scenario;
    json cloud;
};

[[nodiscard]] Documents documents_of(const std::vector<Conversation> &record);

}  // namespace emulator
