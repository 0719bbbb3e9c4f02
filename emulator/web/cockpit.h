// What a page needs of a running device beyond its control: commands that run side by side with their text as
// it grows, the state as it changes, restarts that are done when they are due. Safe for several threads.
#pragma once

#include <atomic>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "control.h"

namespace emulator {

class Cockpit {
public:
    /// The control must outlive it.
    explicit Cockpit(Control &control);
    ~Cockpit();  ///< Ends what still runs on the device.
    Cockpit(const Cockpit &) = delete;
    Cockpit &operator=(const Cockpit &) = delete;

    /// Starts a command line: words where it is nothing but words, else by a shell.
    /// @return its number.
    int start(const std::string &line);

    /// Commands that have changed since a version: [{"id", "line", "text", "ended", "status"}]; "text" is
    /// what they wrote, its last part where it is long. "status" as a shell has it.
    /// @param version  in: what is known; out: what is known then. Begins with 0.
    [[nodiscard]] json runs(int &version);

    /// The state (see Control) when it is another than that of the version, else null.
    [[nodiscard]] json state(int &version);

    /// Files of /tmp: [{"path", "kind", "size", "mode", "changed"}], links not followed.
    [[nodiscard]] static json files();

    /// The first part of a regular file of /tmp. @throws std::invalid_argument  there is no such file.
    [[nodiscard]] static std::string file(const std::string &path);

    [[nodiscard]] Control &control() { return control_; }

private:
    struct Command {
        int id = 0;
        std::string line;
        std::string text;
        bool ended = false;
        int status = 0;
        int version = 0;
        std::thread thread;
    };

    void _run(Command &command);
    void _watch();

    Control &control_;
    std::atomic<bool> stopping_ = false;
    std::mutex mutex_;
    // All below: under mutex_.
    std::list<Command> commands_;
    int version_ = 0;  // of the commands
    json state_;
    int state_version_ = 0;
    std::thread watcher_;
};

}  // namespace emulator
