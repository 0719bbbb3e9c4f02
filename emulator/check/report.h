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
    /// @param tap      must outlive it.
    /// @param part     what is checked: "broker"; names the suite.
    /// @param planned  how many checks there will be.
    Report(std::ostream &tap, std::string part, size_t planned);

    /// Writes TAP's line for a check, with its sentence.
    void add(const Check &check, const Result &result);

    /// Writes the same as one XML document. The file stays the caller's.
    /// @throws std::runtime_error  it cannot be written.
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
