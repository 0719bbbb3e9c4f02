// Covers passwords and tokens in the texts that a page shows.
#pragma once

#include <string>
#include <vector>

#include "journal.h"

namespace emulator {

class Secrets {
public:
    /// Takes the values of the cloud's passwords and of its token, to find them wherever they stand. Values
    /// of less than four bytes are not taken.
    explicit Secrets(const json &cloudModel);

    /// The text with secrets covered. Known values: also in hexadecimal, and as they stand in JSON within up
    /// to four texts. What members such as "cloudPassword" hold: in JSON that is a text within JSON as well,
    /// to any depth.
    [[nodiscard]] std::string cover(std::string text) const;

private:
    std::vector<std::string> values_;
};

}  // namespace emulator
