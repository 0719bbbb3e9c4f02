// JSON whose texts hold JSON again, as the broker's messages do: a request or an answer within a body.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "journal.h"

namespace emulator {

/// The object or list that a text holds; null where it holds none.
[[nodiscard]] json structure_of(std::string_view text);

/// The value with each text that holds an object or a list replaced by that, at every depth.
[[nodiscard]] json unfolded(const json &value);

/// Gets each text and number with the name of the member in which it stands (in a list: the list's name), and
/// may replace it. Returns whether it did.
using ChangeValue = std::function<bool(const std::string &member, json &value)>;

/// Has all values changed, also within texts: a text in which nothing changes stays byte for byte as it is.
/// @return whether anything did.
bool change_values(json &value, const ChangeValue &change, const std::string &member = {});

}  // namespace emulator
