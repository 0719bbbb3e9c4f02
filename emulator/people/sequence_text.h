// A sequence as lines of text: the time, the lanes with their arrow, what is said. What repeats (a poll, each
// percent of a download) is shown once and counted.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "sequence.h"

namespace emulator {

struct TextStyle {
    size_t columns = 80;  ///< no line is longer
    bool colour = false;
    bool utf8 = true;  ///< else ASCII signs; texts stay as they are
    bool times = true;
    std::string indent;

    /// What suits a descriptor: the width of its terminal (COLUMNS, or the usual one, where it is none),
    /// colour only on a terminal and without NO_COLOR, signs by the locale's variables.
    [[nodiscard]] static TextStyle of(int fd, size_t usualColumns = 100);
};

class SequenceText {
public:
    /// The stream must outlive it.
    SequenceText(std::ostream &out, TextStyle style) : out_(out), style_(std::move(style)) {}

    /// Writes the names of the lanes.
    void header();
    /// Writes the lines of a record, or counts them as repeated.
    void add(const json &record);
    /// Shows what there is so far; call it when the next record is waited for.
    void pause();
    /// Writes how many lines were repeated last. Call it at the end, and before other text.
    void flush();

private:
    void _print(const std::string &time, const Arrow &arrow);
    [[nodiscard]] std::string _lanes(const Arrow &arrow) const;
    [[nodiscard]] size_t _lane_width() const;

    std::ostream &out_;
    const TextStyle style_;
    Sequence sequence_;
    std::vector<std::string> last_;  // what the latest lines say
    size_t repeated_ = 0;            // lines that said the same as these
};

/// The text in at most so many columns; "..." where it was cut.
[[nodiscard]] std::string in_columns(const std::string &text, size_t columns);

/// The text in lines of at most so many columns, each with its end, broken between words.
[[nodiscard]] std::string in_lines(const std::string &text, size_t columns);

}  // namespace emulator
