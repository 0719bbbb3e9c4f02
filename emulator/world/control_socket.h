// Joins a running device from another process: one JSON object a line over a UNIX socket in the abstract
// namespace, "extender/NAME", which is seen from inside of the device and from the host alike. Only the own
// user is heard, and only a device of the own user is spoken to.
//   {"do": "exec", "argv": [...], "term": TERM}, with descriptors for standard input, output and error
//        {"signal": n} may follow;          answer {"status": n}; an end of the connection hangs up on the
//        command
//   {"do": "inject", "fault": ...}          answer {"action": ...}; see Control::inject
//   {"do": "state"}, {"do": "scenario"}     answer: that object
//   {"do": "journal", "after": seq, "follow": true}   its lines; follow: until the device ends
// What cannot be done is answered by {"error": text}.
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
    /// @param name  of the device; "": the first of "1", "2", ... that is free. Commands on the device find
    /// it in
    ///     EXTENDER_DEVICE.
    /// @throws std::runtime_error  the name is taken.
    explicit ControlSocket(Control &control, const std::string &name = "");
    ~ControlSocket();  ///< Followers get the rest of the journal; commands that were begun from here are
                       ///< ended.
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

/// The other end: a connection to a device that runs.
/// @param name  "": the one of EXTENDER_DEVICE, or the only one that runs.
/// @throws std::runtime_error  there is none, or more than one, or it is somebody else's.
[[nodiscard]] Descriptor join_device(const std::string &name);

/// Sends a request. @param stdio  whether this process's standard descriptors go with it.
void send_request(const Descriptor &device, const json &request, bool stdio = false);

/// The answer to a request.
/// @throws std::runtime_error  it is an error, or there is none.
[[nodiscard]] json read_answer(const Descriptor &device);

}  // namespace emulator
