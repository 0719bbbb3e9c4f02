// Documents that people write for the device: a scenario, changes to the cloud's model. What is misspelt
// or of a wrong kind is refused when it is read. Otherwise a misspelt fault would do nothing, and a test that
// scripts it would pass.
#pragma once

#include <span>
#include <string>

#include "journal.h"

namespace emulator {

/// What a member may hold. Numbers are whole and of 32 bits: kInteger with a sign, kCount from 0 on, kNumber
/// from 1 on.
enum class Kind { kAny, kText, kHex, kFlag, kInteger, kCount, kCountOrNull, kNumber, kList, kObject };

struct Member {
    const char *name;
    Kind kind;
    bool needed = false;
};

/// @param what  the object is, for the message.
/// @throws std::invalid_argument  it is no object, has a member that is not known or of another kind, or
///     lacks one that is needed; the text names it.
void check_members(const json &object, std::span<const Member> known, const std::string &what);

/// Reads a file, comments in it allowed; an empty object for no path.
/// @throws std::invalid_argument  it is not JSON; std::system_error, it cannot be read. Both name it.
[[nodiscard]] json read_document(const std::string &path);

}  // namespace emulator
