// The one way in which a test waits for what nothing reports by a descriptor or the journal.
#pragma once

#include <chrono>
#include <thread>

namespace test {

/// Looks again and again until the condition holds. @return false when the watchdog ran out before.
template <class Condition>
[[nodiscard]] bool await(const Condition &condition,
                         std::chrono::milliseconds watchdog = std::chrono::seconds(60)) {
    constexpr std::chrono::milliseconds kBetweenLooks{1};
    const auto deadline = std::chrono::steady_clock::now() + watchdog;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(kBetweenLooks);
    }
    return true;
}

}  // namespace test
