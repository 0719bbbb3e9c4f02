// A point of a sweep and the fault that strikes there. Written as KIND:PLACE[:NUMBER]:FAULT, so that one can
// be named and repeated alone:
//   calls:open:17:once        the 17th call fails; "ever": and all after it
//   memory:any:17:once        the 17th allocation of any kind; "ever": and all after it
//   memory:over:4096:ever     every allocation of so many bytes or more
//   syscalls:openat:3:EMFILE  the 3rd call of that name fails
//   kills:write:2:kill        killed as it makes its 2nd
//   broker:1.poll.2:13:cut    at byte 13 of the reply to the 2nd poll on connection 1
//   files:/tmp/passwd:fifo    what stands there instead
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace emulator::sweep {

inline constexpr std::array<std::string_view, 6> kKinds{"calls",  "syscalls", "kills",
                                                        "broker", "files",    "memory"};

struct Point {
    std::string kind;
    std::string place;
    int number = 0;  ///< 0: none
    std::string fault;
};

/// The written form, which parse_point() reads.
[[nodiscard]] std::string to_text(const Point &point);

/// @throws std::invalid_argument  the text names no point.
[[nodiscard]] Point parse_point(const std::string &text);

/// At most `limit` of the points (0: all), about as many of each kind, in their order; the same seed chooses
/// the same ones.
[[nodiscard]] std::vector<Point> sample(const std::vector<Point> &points, size_t limit, unsigned seed);

}  // namespace emulator::sweep
