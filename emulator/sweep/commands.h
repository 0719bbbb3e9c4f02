// The commands of cloud_msg, each with what the device needs before it: for a sweep over all.
#pragma once

#include <string>
#include <vector>

namespace emulator::sweep {

struct Command {
    std::vector<std::string> words;
    std::vector<std::string> before;  ///< commands, words divided by blanks

    /// What the table calls it: "bind" for "cloud_msg bind ...".
    [[nodiscard]] std::string name() const;
};

[[nodiscard]] std::vector<Command> all_commands();

/// The words of a text, divided at blanks; quotes mean nothing.
[[nodiscard]] std::vector<std::string> words_of(const std::string &text);

}  // namespace emulator::sweep
