// What a page shows of texts that hold secrets: passwords and tokens are covered until somebody asks for
// them.
#pragma once

#include <string>
#include <vector>

#include "journal.h"

namespace emulator {

class Secrets {
public:
    /// The cloud's passwords and its token are known by value, so they are found wherever they stand.
    explicit Secrets(const json &cloudModel);

    /// The text with each secret covered: those that are known, also in hexadecimal, and what members such as
    /// "cloudPassword" hold, in JSON as well as in JSON that is a text within JSON, to any depth.
    [[nodiscard]] std::string cover(std::string text) const;

private:
    std::vector<std::string> values_;
};

}  // namespace emulator
