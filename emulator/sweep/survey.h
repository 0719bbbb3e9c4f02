// The good runs of a sweep: what they do and leave, the points at which a fault can strike, and what becomes
// of a run that it strikes.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "judge.h"
#include "point.h"
#include "stage.h"

namespace emulator::sweep {

struct Survey {
    Good good;
    std::vector<Point> points;
    std::map<std::string, int> skipped;  ///< system calls before the program's own first step
    long milliseconds = 0;               ///< of one good run
};

/// Makes the good runs.
/// @param kinds  of the points that are wanted.
/// @throws std::runtime_error  a run without a fault does not end well; the text says how.
[[nodiscard]] Survey survey(Stage &stage, const std::vector<std::string> &kinds);

struct Verdict {
    std::vector<Fall> falls;
    bool struck = true;  ///< false: the run did not come to the point
};
/// Prepares the stage, makes the run with the fault and the next one without, and judges both.
/// @throws std::invalid_argument or std::system_error  the fault cannot be made: see Scene.
[[nodiscard]] Verdict judge_point(Stage &stage, const Survey &survey, const Point &point);

}  // namespace emulator::sweep
