// JSON whose texts hold JSON again, as the broker's messages do: a request within a body, an answer within
// that.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "journal.h"

namespace emulator {

/// The object or list that a text holds; null where it holds none.
[[nodiscard]] json structure_of(std::string_view text);

/// The value with such texts in the place of which stands what they hold, at every depth.
[[nodiscard]] json unfolded(const json &value);

/// Is given each text and number with the name of the member in which it stands (of a list: the list's), and
/// may replace it. @return whether it did.
using ChangeValue = std::function<bool(const std::string &member, json &value)>;

/// Has all values changed, also within texts: a text in which nothing changes stays byte for byte as it is.
/// @return whether anything did.
bool change_values(json &value, const ChangeValue &change, const std::string &member = {});

}  // namespace emulator
