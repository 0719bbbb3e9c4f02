// What the numbers and console lines of the device mean: one table for "extender explain" and docs/codes.md.
#pragma once

#include <span>
#include <string_view>

namespace emulator {

/// Where a number is seen.
enum class Place { kPrinted, kStatusFile, kImage, kCloud };

struct CodeMeaning {
    int code;
    Place place;
    std::string_view meaning;
    std::string_view step;     ///< what the program was at
    std::string_view look_at;  ///< what to do about it
};

struct LineMeaning {
    std::string_view text;  ///< as in the source: %s, %d and the like stand for anything
    std::string_view meaning;
    std::string_view step;
    std::string_view look_at;
};

/// Which step the lines of a module come from.
struct ModuleMeaning {
    std::string_view name;  ///< begins the source's name, which console lines have after "src/"
    std::string_view step;
};

/// Each text that the program logs, whether it has a row or not.
struct PrintedLine {
    std::string_view text;    ///< as in LineMeaning
    std::string_view source;  ///< the source's name
};

// The tables, in the order of docs/codes.md; they live as long as the program.
[[nodiscard]] std::span<const CodeMeaning> code_meanings();
[[nodiscard]] std::span<const LineMeaning> line_meanings();
[[nodiscard]] std::span<const ModuleMeaning> module_meanings();
[[nodiscard]] std::span<const PrintedLine> printed_lines();
/// The step of a source; empty for one that no row knows.
[[nodiscard]] std::string_view step_of(std::string_view source);
/// The place for people: "printed", "cloud", ...
[[nodiscard]] std::string_view place_text(Place place);

/// Whether a console line holds the text of a row, with anything in the place of its
/// conversions ("%d", "%.0f", "%lu").
[[nodiscard]] bool line_fits(std::string_view line, std::string_view text);

}  // namespace emulator
