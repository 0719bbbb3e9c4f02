// A running device in several hands: the terminal that began it, other terminals, a page. Everything here may
// be called from any thread. control_socket.h carries the same to other processes.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "device.h"
#include "image_server.h"

namespace emulator {

inline constexpr int kNoCommand = 127;  ///< status of a command that does not start, as a shell has it

class Control {
public:
    /// Device and server must outlive it.
    Control(Device &device, ImageServer &server) : device_(device), server_(server) {}

    /// Gets what a command has written since the last call.
    using Output = std::function<void(std::string_view out, std::string_view err)>;

    /// Runs a command to its end and notes it in the journal; several may run at once. "cloud_msg" is the
    /// program under test, see Device::run. A restart of the device ends it.
    /// @throws std::system_error  it does not start.
    Run run_command(const std::vector<std::string> &argv, const Output &output = {});

    /// Notes a command that another runs: its start, and its end with a status as a shell has it.
    void note_start(const std::vector<std::string> &argv);
    void note_end(const std::vector<std::string> &argv, int status);

    /// Injects a fault: words or an action, see fault.h. Noted in the journal ("injected").
    /// @return the action.
    /// @throws std::invalid_argument  no such fault, or a rule that its server refuses.
    /// @throws std::system_error      it cannot be done.
    json inject(const json &fault);

    /// How the device stands:
    ///   "bound"     whether the store says so          "account"   the stored account's name, or ""
    ///   "owner"     whom the cloud has as the owner    "mode"      the broker's mode, 0 or 1
    ///   "link"      the broker's link, 2 up            "alias"     in the cloud
    ///   "firmware"  the version that runs              "status"    the firmware status file, or null
    ///   "result"    of the last account command, as "/tmp/cloud.error" has it, or null
    ///   "locks"     [{"command", "path", "held"}] of those that are there
    ///   "last"      {"argv", "printed", "status", "signal"} of the last command of run_command(), or null
    ///   "scripts"   the latest that ran: [{"t", "name", "arguments"}], ten at most
    ///   "tmp_free"  bytes that /tmp still takes        "seq"       the journal's last
    json state();

    /// The device's scenario with the injected rules added. Their "nth" counts from the start of the device,
    /// so that they strike the same messages in a run from there. Its "description" lists what was injected
    /// and cannot stand in a scenario.
    [[nodiscard]] json scenario();

    [[nodiscard]] Device &device() { return device_; }
    [[nodiscard]] Journal &journal() { return device_.journal(); }
    [[nodiscard]] ImageServer &image_server() { return server_; }

private:
    [[nodiscard]] json _add_image_rule(json rule);
    void _act(const json &action);
    void _clear();

    Device &device_;
    ImageServer &server_;
    std::mutex mutex_;
    // All below: under mutex_.
    std::vector<json> broker_rules_;  // injected, as a scenario has them
    std::vector<json> image_rules_;
    std::vector<std::string> others_;  // injected, and nothing for a scenario
    json last_;
    json store_ = json::object();  // what the store held when its file was as old as store_mark_
    std::string store_mark_;
};

}  // namespace emulator
