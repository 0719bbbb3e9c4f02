// Child processes with an owner: output caught, a watchdog, killed if left running.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "descriptor.h"
#include "journal.h"

namespace emulator {

struct RunOptions {
    std::vector<std::pair<std::string, std::string>> environment;  ///< added to this process's: name, value
    std::string input;                                             ///< what stands on standard input
    std::chrono::milliseconds watchdog = kWatchdog;
};

/// How a program ended, and what it wrote.
struct Run {
    int status = -1;  ///< exit status; -1 when a signal ended it
    int signal = 0;   ///< the signal that ended it, or 0
    std::string out;
    std::string err;
};

class Process {
public:
    /// Starts argv[0] (searched in PATH) in a process group of its own.
    /// @throws std::system_error  it cannot be started.
    explicit Process(std::vector<std::string> argv, const RunOptions &options = {});
    Process(Process &&other) noexcept;
    Process &operator=(Process &&) = delete;
    ~Process();  ///< Kills the group if the process still runs.

    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] bool running();
    [[nodiscard]] std::string out() const;  ///< what it has written up to now
    [[nodiscard]] std::string err() const;
    void kill(int signal);  ///< to the process itself; nothing after wait()

    /// Waits for its end; a later call returns the same.
    /// @throws std::runtime_error  watchdog: the group was killed; the text has the output.
    Run wait();

private:
    std::vector<std::string> argv_;
    std::chrono::milliseconds watchdog_;
    pid_t pid_ = -1;
    Descriptor pidfd_;
    Descriptor out_;
    Descriptor err_;
    bool ended_ = false;
    Run run_;
};

/// What the exec family takes: pointers to the texts, then null. They live as long as the texts.
[[nodiscard]] std::vector<char *> exec_pointers(std::vector<std::string> &texts);

}  // namespace emulator
