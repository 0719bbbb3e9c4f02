// What a page needs of a running device beyond its control: commands that run side by side, what they have
// written so far, the state when it changes. It also does the restarts that are due. Safe for several
// threads.
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

    /// Starts a command line: by itself where it has nothing but words, else by a shell.
    /// @return its number.
    /// @throws std::invalid_argument  the line is empty.
    int start(const std::string &line);

    /// Commands that have changed since a version: [{"id", "line", "text", "ended", "status"}]; "text" is
    /// what they wrote, of more than 64 KiB the end. "status" as a shell has it.
    /// @param version  in: the one that the caller knows, 0 at first; out: the present one.
    [[nodiscard]] json runs(int &version);

    /// The state (see Control::state) when it has changed since a version, else null.
    /// @param version  as in runs().
    [[nodiscard]] json state(int &version);

    /// Files of /tmp: [{"path", "kind", "size", "mode", "changed"}], links not followed.
    [[nodiscard]] static json files();

    /// The first 64 KiB of a regular file of /tmp. @throws std::invalid_argument  there is no such file.
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
    std::thread watcher_;  // of constructor and destructor alone
};

}  // namespace emulator
