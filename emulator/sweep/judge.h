// The judgements after a run, and what they compare with.
//   printed     one number                  descriptor  none left at the end
//   status      exit status 0               process     none left, what was started included
//   signal      it ended by itself          lock        none held, no lock file
//   time        before the watchdog         temporary   no file that a good run does not leave
//   others      lines and files of others are as they were
//   state       each record of the store, the device in the cloud, the broker's mode: old or new
//   next        the next run, without a fault, works, and leaves a good state
#pragma once

#include <set>
#include <string>
#include <vector>

#include "runner.h"
#include "stage.h"

namespace emulator::sweep {

struct Fall {
    std::string judgement;
    std::string text;
};

/// What good runs do and leave.
struct Good {
    std::vector<json> states;       ///< old, and after each good run
    std::set<std::string> moving;   ///< what two equal runs leave otherwise: not judged
    std::set<std::string> names;    ///< in "/tmp", before or after
    std::set<std::string> open;     ///< descriptors' targets at the end
    std::set<std::string> printed;  ///< also by a run after it, whatever part of the first one was done
    bool reported = false;          ///< the library of faults works with this program
};

/// Whether an output is one whole number, with blanks around it at most.
[[nodiscard]] bool is_one_number(const std::string &printed);

/// After the run with the fault, and once the fault has ended.
[[nodiscard]] std::vector<Fall> judge_run(const Point &point, const Good &good, const Outcome &outcome);
/// Looks at the device after that: processes, locks, files of others, names, the state.
[[nodiscard]] std::vector<Fall> judge_device(const Point &point, const Good &good, Stage &stage);
/// After the next run, without a fault. What a killed run left is judged here.
[[nodiscard]] std::vector<Fall> judge_next(const Point &point, const Good &good, const Outcome &outcome,
                                           Stage &stage);

}  // namespace emulator::sweep
