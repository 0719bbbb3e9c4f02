// Reads what a journal was written to: a file, a pipe, a socket; line by line, also while it grows. A line
// that is no record (the journal may stand among the lines of standard error) is passed over and counted.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "descriptor.h"
#include "journal.h"

namespace emulator {

class JournalReader {
public:
    /// @param path    "-": standard input.
    /// @param follow  at the end of a file, wait for more. Pipes and sockets are always read to their end.
    /// @throws std::system_error  it does not open, or cannot be followed.
    explicit JournalReader(const std::string &path, bool follow = false);
    explicit JournalReader(Descriptor input) : input_(std::move(input)) {}

    /// The next record; none at the end. A last line that was cut off (its writer was killed) is passed over.
    /// @throws std::system_error  the input cannot be read.
    [[nodiscard]] std::optional<json> next();

    /// Whether a call of next() returns at once: a whole line is there already.
    [[nodiscard]] bool ready() const { return rest_.find('\n') != std::string::npos; }

    /// Lines that were no records.
    [[nodiscard]] int foreign() const { return foreign_; }

private:
    [[nodiscard]] bool _fill();
    void _await_growth();

    Descriptor input_;
    std::string name_ = "the device's journal";
    Descriptor growth_;    // reports changes of a file that is followed
    std::string rest_;     // read, and not yet handed out
    size_t searched_ = 0;  // bytes of it that hold no end of a line
    int foreign_ = 0;
};

/// All records of a journal.
/// @throws std::system_error  it cannot be read.
/// @throws std::invalid_argument  it has lines, but none that is a record.
[[nodiscard]] std::vector<json> read_journal(const std::string &path);

}  // namespace emulator
