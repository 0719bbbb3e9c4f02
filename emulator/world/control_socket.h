// Joins a running device from another process: one JSON object a line over a UNIX socket in the abstract
// namespace, "extender/NAME", which is seen from inside of the device and from the host alike. Both ends
// refuse a peer of another user.
//
//   {"do": "exec", "argv": [...], "term": TERM}, with descriptors for standard input, output and error
//        {"signal": n} may follow; the answer, when the command has ended, is {"status": n}. When the
//        connection ends before, the command gets SIGHUP, and SIGKILL two seconds later.
//   {"do": "inject", "fault": ...}          answer {"action": ...}; see Control::inject
//   {"do": "state"}, {"do": "scenario"}     answer: that object
//   {"do": "journal", "after": seq, "follow": true}   answer: its lines; with follow until the device ends
//
// A request that fails is answered by {"error": text}.
#pragma once

#include <atomic>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "control.h"
#include "descriptor.h"
#include "journal.h"

namespace emulator {

class ControlSocket {
public:
    /// Listens at once, and puts the name into EXTENDER_DEVICE for commands on the device.
    /// @param control  must outlive it.
    /// @param name     of the device; "": the first of "1", "2", ... that is free.
    /// @throws std::runtime_error  the name is taken.
    explicit ControlSocket(Control &control, const std::string &name = "");
    /// Followers get the rest of the journal; commands that were begun from here are ended.
    ~ControlSocket();
    ControlSocket(const ControlSocket &) = delete;
    ControlSocket &operator=(const ControlSocket &) = delete;

    [[nodiscard]] const std::string &name() const { return name_; }

private:
    struct Guest {
        Descriptor socket;
        std::atomic<bool> ended = false;
        std::thread thread;
    };

    void _accept_loop();
    void _serve(const Descriptor &guest);
    void _exec(const Descriptor &guest, const json &request, std::vector<Descriptor> stdio);
    void _send_journal(const Descriptor &guest, const json &request);

    Control &control_;
    std::string name_;
    Descriptor listening_;
    std::atomic<bool> stopping_ = false;
    std::list<Guest> guests_;  // of the acceptor alone until it ends
    std::thread acceptor_;
};

/// Connects to a device that runs.
/// @param name  "": the one of EXTENDER_DEVICE, or the only one that runs.
/// @return the connection, which is the caller's.
/// @throws std::runtime_error  there is none, or more than one, or it is another user's.
[[nodiscard]] Descriptor join_device(const std::string &name);

/// Sends a request. A device that has ended shows with the answer.
/// @param stdio  whether this process's standard descriptors go with it.
/// @throws std::system_error  the descriptors cannot be sent.
void send_request(const Descriptor &device, const json &request, bool stdio = false);

/// Waits for the answer to a request: one line.
/// @throws std::runtime_error  it is an error, or no JSON, or the connection has ended.
[[nodiscard]] json read_answer(const Descriptor &device);

}  // namespace emulator
