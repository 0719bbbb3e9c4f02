// Numbers from outside, brought into 32 bits: what lies beyond is taken as the nearest value there is.
// (atoi, scanf and a plain cast leave those cases undefined, and a hostile answer may hold them.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>

/// Bytes for a 32-bit number in decimals, a newline and the terminator.
inline constexpr size_t kNumberRoom = 16;

/// The nearest 32-bit integer to a value, towards zero; 0 for no number at all.
template <class Integer = int32_t>
[[nodiscard]] constexpr Integer cloud_clampTo(double value) {
    constexpr double kMin = std::numeric_limits<Integer>::min();
    constexpr double kMax = std::numeric_limits<Integer>::max();
    if (!(value > kMin)) {
        return value <= kMin ? std::numeric_limits<Integer>::min() : 0;
    }
    return value >= kMax ? std::numeric_limits<Integer>::max() : static_cast<Integer>(value);
}

/// Reads a decimal number: white space, a sign, digits.
/// @param end  may be null; receives where reading stopped, `text` itself when there is no number.
/// @return the number; 0 when there is none.
[[nodiscard]] inline int32_t cloud_parseInt32(const char *text, const char **end = nullptr) {
    char *stop = nullptr;
    const long value = strtol(text, &stop, 10);
    if (end != nullptr) {
        *end = stop;
    }
    if (value > std::numeric_limits<int32_t>::max()) {
        return std::numeric_limits<int32_t>::max();
    }
    return value < std::numeric_limits<int32_t>::min() ? std::numeric_limits<int32_t>::min()
                                                       : static_cast<int32_t>(value);
}
