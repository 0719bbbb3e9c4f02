// The emulated device as a whole: broker, cloud, kmpd, console and scripts around the real
// program. Lives in a process that called enter_device().
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "broker.h"
#include "cloud.h"
#include "descriptor.h"
#include "journal.h"
#include "kmpd.h"
#include "process.h"

namespace emulator {

inline constexpr const char *kDeviceId = "8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012";
inline constexpr const char *kSoftwareVersion = "1.0.3 Build 20200923 Rel.36519\n";

class Device {
public:
    /// Fresh /tmp with "device.info" and "softinfo", empty flash (unless that is a folder of the host),
    /// neighbours started.
    /// @param scenario  start values and rules of the broker, and "kmpd" (docs/emulator.md). "image" is not
    ///     used here: see make_image_server().
    /// @param cloud     changes to the built-in model of the cloud.
    /// @param sink      file that gets the journal's lines, or null; stays the caller's.
    /// @throws std::invalid_argument  a name or a value that no scenario or model has.
    /// @throws std::system_error      a file or a socket cannot be had.
    explicit Device(json scenario = json::object(), json cloud = json::object(), std::FILE *sink = nullptr);
    ~Device();
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    /// Runs a program on the device to its end, and until what it left in the background has
    /// ended too (see settle), and records it. "cloud_msg" as argv[0] stands
    /// for the program under test: CLOUD_MSG_COMMAND of the environment, split at blanks, if
    /// set ("qemu-mips -L root path/cloud_msg"), else the one beside this executable.
    /// @throws std::system_error   it cannot be started.
    /// @throws std::runtime_error  the watchdog ended it.
    Run run(std::vector<std::string> argv, const RunOptions &options = {});
    /// The same for the program under test; the arguments come without its name.
    Run cloud_msg(std::vector<std::string> args, const RunOptions &options = {});

    /// Starts a program in the background; "cloud_msg" as in run(). The journal does not have it.
    /// @throws std::system_error  it cannot be started.
    [[nodiscard]] Process start(std::vector<std::string> argv, const RunOptions &options = {});

    /// Waits until no process is left over from programs that have ended ("dropbreload &"), and
    /// takes in what they reported. Returns at the limit, whether or not some still run.
    void settle(std::chrono::milliseconds limit = std::chrono::seconds(10));

    /// The text as cipher, as the device's web interface would make it, by `cloud_rsa encrypt`.
    /// @throws std::runtime_error  cloud_rsa fails.
    [[nodiscard]] std::string encrypt(std::string_view text);

    /// A record of the configuration store ("account", ...), by `cloud_store get`.
    /// @throws std::runtime_error  cloud_store fails.
    [[nodiscard]] json store(const std::string &name);

    /// Back to the state that the constructor made. The journal is emptied; its "seq" goes on.
    void reset();

    /// Whether the platform has installed an image and asks for a restart.
    [[nodiscard]] static bool restart_due();

    /// Starts the device anew: all its processes end (see end_other_processes), /tmp is new,
    /// "softinfo" names the version of the image in the flash. The cloud, the broker's mode and the
    /// journal go on; a record {"kind": "restart", "version"} is added.
    void restart();

    /// Asks for a restart as the platform does; whoever runs the device does it.
    /// @throws std::system_error  the flash cannot be written.
    static void ask_for_restart();

    /// While it is held there is no restart and no reset: broker and cloud stay.
    [[nodiscard]] std::unique_lock<std::mutex> hold() { return std::unique_lock(neighbours_); }

    /// Waits until a restart is due, then does it.
    /// @throws std::runtime_error with the journal's text when the watchdog runs out.
    void await_restart();

    [[nodiscard]] Journal &journal() { return journal_; }
    [[nodiscard]] Broker &broker() { return *broker_; }
    [[nodiscard]] Cloud &cloud() { return *cloud_; }
    [[nodiscard]] const json &scenario() const { return scenario_; }

private:
    void _start(const json &cloud);
    void _stop();
    void _collect();

    const json scenario_;
    const json model_;
    Journal journal_;
    std::mutex neighbours_;  // see hold(); cloud_, broker_ and kmpd_ are replaced under it
    std::unique_ptr<Cloud> cloud_;
    std::unique_ptr<Broker> broker_;
    std::unique_ptr<Kmpd> kmpd_;
    Descriptor stop_;
    Descriptor console_;
    Descriptor recorder_;
    std::mutex collecting_;
    std::string console_rest_;  // under collecting_: a line that has no end yet
    std::thread collector_;
};

/// Reports by a descriptor when a restart is due.
class RestartWatch {
public:
    /// @throws std::system_error  the flash cannot be watched.
    RestartWatch();
    /// Readable when due() is to be asked anew.
    [[nodiscard]] int fd() const { return fd_.get(); }
    [[nodiscard]] bool due() const;

private:
    Descriptor fd_;
};

/// The words that start the program under test (see Device::run).
[[nodiscard]] std::vector<std::string> cloud_msg_command();

}  // namespace emulator
