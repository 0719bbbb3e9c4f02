// Figures as a drawing (SVG): how a cost grows with its work. Both axes are logarithmic, so a cost that is
// proportional to its work is a straight line, whatever its unit.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace emulator {

struct Series {
    std::string name;
    std::vector<std::pair<double, double>> points;  ///< work and cost, both above 0
};

/// @return the text of an SVG file. Without points it has the titles and the names of the series only.
[[nodiscard]] std::string plot(const std::string &title, const std::string &work, const std::string &cost,
                               const std::vector<Series> &series);

}  // namespace emulator
