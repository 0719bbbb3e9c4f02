// A check: one sentence of a page for those who write a part of the device, and the work that finds out
// whether the part keeps to it. Each runs in a process of its own, under a watchdog: a part that crashes or
// hangs fails that check, and the next one begins anew.
#pragma once

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace emulator::check {

struct Check {
    std::string name;
    const char *page;            ///< its path in the repository
    const char *sentence;        ///< as it stands there, but for line breaks
    std::function<void()> work;  ///< throws Failed or Skipped, or returns
};
using Checks = std::vector<Check>;

/// The part does not keep to the sentence; the text says what it did.
struct Failed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The sentence cannot be checked as things are; the text says what is needed.
struct Skipped : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// @throws Failed  with the text, unless the condition holds.
void require(bool condition, const std::string &otherwise);

enum class Verdict { kPassed, kFailed, kSkipped };

struct Result {
    Verdict verdict = Verdict::kFailed;
    std::string why;  ///< empty when it passed
    std::chrono::milliseconds time{0};
};

/// Runs one check in a child process. Its process group is killed when it ends or the watchdog runs out.
/// @throws std::system_error  no pipe or no process.
[[nodiscard]] Result run_check(const Check &check, std::chrono::seconds watchdog);

}  // namespace emulator::check
