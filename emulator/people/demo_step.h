// One step of the demo: a command typed on the device, shown with what happens, and checked.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "device.h"
#include "image_server.h"
#include "sequence_text.h"

namespace emulator {

// One command typed on the device, and what must come of it.
struct Step {
    std::string title;              // of a chapter; empty: the chapter goes on
    std::vector<std::string> argv;  // words "rsa:TEXT" and "b64:TEXT" stand for TEXT encrypted or encoded
    std::string printed;            // the exact output; "~TEXT": an output that holds TEXT
    std::vector<json> happened;     // each: members of a journal record that must be among the step's
    std::function<void(Device &)> before = {};
    std::function<Run(Device &, const std::vector<std::string> &)> how = {};  // to run it; empty: to its end
};

/// How the demo writes to standard output: in the width of its terminal, or in 80 columns.
[[nodiscard]] TextStyle demo_style();

/// Plays a step on standard output. @return whether all was as expected; what was not is shown.
[[nodiscard]] bool play_step(Device &device, const Step &step);

/// The chapter on a new version's download, interrupted on its way. The steps use the server, which must
/// outlive them.
[[nodiscard]] std::vector<Step> download_steps(ImageServer &server);

/// The chapter that follows it: a damaged image, then the update through to the restart.
[[nodiscard]] std::vector<Step> update_steps();

}  // namespace emulator
