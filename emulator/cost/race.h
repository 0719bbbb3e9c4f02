// Commands timed against each other: in turns, in every round, so that what else the machine does meets all
// alike. A figure is a quotient of one round; of all rounds' quotients the median tells, and the quartiles
// tell how far it can be trusted.
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

/// Each command once in every round, its output thrown away.
/// @param before  called before each run of a command; not timed.
/// @return for each command, in the order given, its times in each round.
/// @throws std::system_error  a command cannot be started.
[[nodiscard]] std::vector<std::vector<Times>> race(const std::vector<std::vector<std::string>> &commands,
                                                   int rounds, const std::function<void()> &before);

[[nodiscard]] Spread spread(std::vector<double> values);

/// One member of the times of two commands, round by round divided.
[[nodiscard]] Spread ratio(std::span<const Times> times, std::span<const Times> to, double Times::*member);

}  // namespace emulator
