#include "sequence_text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <sstream>
#include <string_view>

#include "progress.h"

namespace emulator {
namespace {

constexpr size_t kTimeWidth = 12;
constexpr size_t kLaneWidth = 5;
constexpr size_t kNarrowLaneWidth = 3;
constexpr size_t kNarrow = 70;      // below this the lanes move together
constexpr size_t kVeryNarrow = 45;  // and below this there are none
constexpr size_t kMemory = 4;       // lines within which something counts as repeated

struct Signs {
    const char *lane, *line, *implied, *left, *right, *lost;
};
constexpr Signs kUnicode{"│", "─", "╌", "◀", "▶", "✗"};
constexpr Signs kAscii{"|", "-", ".", "<", ">", "x"};

bool _continues(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80;
}

size_t _columns(std::string_view text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return !_continues(byte); }));
}

std::string _time_of(const json &record) {
    const json t = record.contains("t") ? record.at("t") : json();
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%11.6f ", t.is_number() ? t.get<double>() : 0.0);
    return text.data();
}

// What counts as the same: a console line with other numbers does.
std::string _gist(const Arrow &arrow) {
    std::string text = arrow.label;
    if (arrow.to == Lane::kConsole && arrow.style != Arrow::Style::kNote) {
        text.erase(
            std::remove_if(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; }),
            text.end());
    }
    return std::to_string(static_cast<int>(arrow.from)) + text;
}

}  // namespace

std::string in_columns(const std::string &text, size_t columns) {
    if (_columns(text) <= columns) {
        return text;
    }
    const size_t kept = columns > 3 ? columns - 3 : columns;
    size_t end = 0;
    for (size_t n = 0; n <= kept && end < text.size(); ++end) {
        n += _continues(text[end]) ? 0 : 1;
        if (n > kept) {
            break;
        }
    }
    return text.substr(0, end) + (columns > 3 ? "..." : "");
}

std::string in_lines(const std::string &text, size_t columns) {
    std::string lines;
    size_t used = 0;
    std::istringstream words(text);
    for (std::string word; words >> word; used += _columns(word)) {
        if (used > 0) {
            const bool fits = used + 1 + _columns(word) <= columns;
            lines += fits ? ' ' : '\n';
            used = fits ? used + 1 : 0;
        }
        lines += word;
    }
    return lines + '\n';
}

TextStyle TextStyle::of(int fd, size_t usualColumns) {
    TextStyle style;
    const size_t columns = terminal_columns(fd);
    const char *const told = std::getenv("COLUMNS");
    const int toldColumns = told != nullptr ? std::atoi(told) : 0;
    style.columns = columns > 0 ? columns : toldColumns > 0 ? static_cast<size_t>(toldColumns) : usualColumns;
    const char *const noColour = std::getenv("NO_COLOR");
    style.colour = columns > 0 && (noColour == nullptr || *noColour == '\0');
    for (const char *name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char *const value = std::getenv(name);
        if (value != nullptr && *value != '\0') {
            const std::string_view locale(value);
            style.utf8 = locale.ends_with("UTF-8") || locale.ends_with("utf8");
            return style;
        }
    }
    style.utf8 = false;
    return style;
}

size_t SequenceText::_lane_width() const {
    return style_.columns < kVeryNarrow ? 0 : style_.columns < kNarrow ? kNarrowLaneWidth : kLaneWidth;
}

// Lanes' names in two rows, or there would be no room for them.
void SequenceText::header() {
    const size_t width = _lane_width();
    const size_t before = style_.indent.size() + (style_.times ? kTimeWidth : 0) + 1;
    for (const size_t row : {0U, 1U}) {
        std::string line(before, ' ');
        for (size_t i = row; width > 0 && i < kLaneNames.size(); i += 2) {
            line.resize(before + i * width, ' ');
            const size_t room = 2 * width - 1;
            line += std::string(kLaneNames.at(i)).substr(0, room);
        }
        if (width > 0) {
            out_ << line << '\n';
        }
    }
}

std::string SequenceText::_lanes(const Arrow &arrow) const {
    const Signs &signs = style_.utf8 ? kUnicode : kAscii;
    const size_t width = _lane_width();
    if (width == 0) {
        return std::string(kLaneNames.at(static_cast<size_t>(arrow.from))) + (style_.utf8 ? "→" : ">") +
               kLaneNames.at(static_cast<size_t>(arrow.to)) + " ";
    }
    const size_t from = static_cast<size_t>(arrow.from) * width;
    const size_t to = static_cast<size_t>(arrow.to) * width;
    const auto [first, last] = std::minmax(from, to);
    const size_t head = to > from ? to - 1 : to + 1;
    std::string text;
    for (size_t i = 0; i < (kLaneNames.size() - 1) * width + 1; ++i) {
        const bool lane = i % width == 0;
        if (i == head) {
            text += arrow.style == Arrow::Style::kLost ? signs.lost : to > from ? signs.right : signs.left;
        } else if (i > first && i < last) {
            text += arrow.style == Arrow::Style::kPlain ? signs.line : signs.implied;
        } else {
            text += lane ? signs.lane : " ";
        }
    }
    return text + "  ";
}

void SequenceText::_print(const std::string &time, const Arrow &arrow) {
    std::string before = style_.indent + (style_.times ? time : "") + ' ';
    std::string colour;
    if (arrow.fault) {
        colour = "\x1b[31m";
    } else if (arrow.style == Arrow::Style::kNote) {
        colour = "\x1b[1m";
    } else if (arrow.style == Arrow::Style::kImplied || arrow.to == Lane::kConsole) {
        colour = "\x1b[2m";
    }
    before += arrow.style == Arrow::Style::kNote ? "" : _lanes(arrow);
    const std::string label = (arrow.fault ? "! " : "") + arrow.label;
    const size_t used = _columns(before);
    const std::string shown = in_columns(label, style_.columns > used ? style_.columns - used : 0);
    out_ << before << (style_.colour ? colour : "") << shown
         << (style_.colour && !colour.empty() ? "\x1b[0m" : "") << '\n';
}

// The count of what goes on repeating is written when something else comes: a download would fill the screen.
void SequenceText::pause() {
    out_.flush();
}

void SequenceText::flush() {
    if (repeated_ > 0) {
        std::string line = style_.indent + (style_.times ? std::string(kTimeWidth, ' ') : "");
        line += " (again, " + std::to_string(repeated_) + (repeated_ == 1 ? " line)" : " lines)");
        out_ << in_columns(line, style_.columns) << '\n';
        repeated_ = 0;
    }
    out_.flush();
}

void SequenceText::add(const json &record) {
    const std::string time = _time_of(record);
    for (const Arrow &arrow : sequence_.arrows(record)) {
        const std::string gist = _gist(arrow);
        if (!arrow.fault && std::find(last_.begin(), last_.end(), gist) != last_.end()) {
            ++repeated_;
            continue;
        }
        flush();
        _print(time, arrow);
        if (arrow.style == Arrow::Style::kNote) {
            last_.clear();  // another command may do the same, and is shown doing it
        }
        last_.push_back(gist);
        last_.erase(last_.begin(), last_.end() - std::min<std::ptrdiff_t>(kMemory, std::ssize(last_)));
    }
}

}  // namespace emulator
