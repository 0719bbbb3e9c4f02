// Commands timed against each other: each runs once in every round, so that other load of the machine meets
// all of them. Times are compared within a round, as quotients; the figures are the median and the quartiles
// of all rounds' quotients.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

namespace emulator {

struct Times {
    double wall_us = 0;
    double processor_us = 0;  ///< of the program and what it waited for
};

struct Spread {
    double median = 0;
    double low = 0;   ///< a quarter of the rounds are below
    double high = 0;  ///< a quarter are above
};

/// Runs each command once in every round, its output thrown away, after one round that does not count.
/// @param before  called before each run of a command; not timed.
/// @return for each command, in the order given, its times in each round.
/// @throws std::system_error  a command cannot be started.
[[nodiscard]] std::vector<std::vector<Times>> race(const std::vector<std::vector<std::string>> &commands,
                                                   int rounds, const std::function<void()> &before);

/// Zeros where there are no values.
[[nodiscard]] Spread spread(std::vector<double> values);

/// The spread of the quotients of one member, round by round. A divisor below 1 us counts as 1 us.
[[nodiscard]] Spread ratio(std::span<const Times> times, std::span<const Times> to, double Times::*member);

}  // namespace emulator
