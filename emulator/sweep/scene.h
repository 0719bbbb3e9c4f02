// Faults of the neighbours and of "/tmp": what a point of the kinds broker and files does to a device before
// the run, and takes back after it.
#pragma once

#include <string>
#include <vector>

#include "point.h"
#include "stage.h"

namespace emulator::sweep {

class Scene {
public:
    /// Sets the fault up; nothing for the other kinds.
    /// @throws std::invalid_argument  no such fault.
    /// @throws std::system_error      it cannot be made here.
    Scene(Stage &stage, const Point &point);
    ~Scene();
    Scene(const Scene &) = delete;
    Scene &operator=(const Scene &) = delete;

    /// Ends the fault, for the run that must work again; the destructor does it as well.
    /// @throws std::system_error  it cannot be taken back.
    void end();

private:
    void _broker();
    void _whole_tmp();
    void _one_file();

    Stage &stage_;
    const Point point_;
    bool ended_ = false;
    bool existed_ = false;
    mode_t mode_ = 0;
    std::string content_;  // of the file in whose place something stands
};

/// The points of each kind that a good run shows: from its journal, from the paths that it named.
[[nodiscard]] std::vector<Point> broker_points(const std::vector<json> &journal);
[[nodiscard]] std::vector<Point> file_points(const std::vector<std::string> &paths);

}  // namespace emulator::sweep
