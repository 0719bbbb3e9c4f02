// What the checks found, for people and programs: TAP, and JUnit's XML.
#pragma once

#include <cstdio>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include "check.h"

namespace emulator::check {

class Report {
public:
    /// Writes TAP's head.
    /// @param part  what is checked: "broker"; names the suite.
    Report(std::ostream &tap, std::string part, size_t planned);

    /// Writes TAP's line for a check, with its sentence.
    void add(const Check &check, const Result &result);

    /// The same as one XML document.
    void write_junit(std::FILE *file) const;

    /// @return whether no check failed.
    [[nodiscard]] bool good() const { return failures_ == 0; }

private:
    std::ostream &tap_;
    const std::string part_;
    std::vector<std::pair<Check, Result>> results_;
    size_t failures_ = 0;
    size_t skipped_ = 0;
};

}  // namespace emulator::check
