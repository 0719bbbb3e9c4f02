// Firmware for the emulated device: what the cloud offers, and the status file with its progress bar.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <thread>

#include "device.h"
#include "image_server.h"

namespace emulator {

inline constexpr const char *kStatusPath = "/tmp/cloud.info";
inline constexpr const char *kNewVersion = "1.0.7 Build 20210611 Rel.51820";

/// Has the cloud offer an image of a version as its only firmware. The server has it made, by `cloud_image`,
/// when it is first asked for.
void offer_firmware(Device &device, ImageServer &server, const std::string &version, size_t payload_bytes);

/// Makes the status file as the web interface does.
void put_status_file();

/// Shows the status file as a bar, redrawn as it changes, from a thread of its own until it is destroyed.
/// Where the output is no terminal, a line for each state and each tenth instead.
class ProgressBar {
public:
    explicit ProgressBar(std::ostream &out);
    ~ProgressBar();
    ProgressBar(const ProgressBar &) = delete;
    ProgressBar &operator=(const ProgressBar &) = delete;

    /// Waits until the firmware command that writes the status file has ended: the file has changed since
    /// the bar was made, to a state that ends a command. Gives up when nothing changes: after two seconds
    /// where no command seems to run, after a minute where one does (or was killed, and left its lock).
    void await_end() const;

private:
    // Each change of the status file makes a new file of it, or is written over it.
    using FileMark = std::array<int64_t, 3>;

    [[nodiscard]] static FileMark _mark();
    void _show();

    std::ostream &out_;
    const bool terminal_;
    const FileMark first_ = _mark();
    std::string last_;
    std::atomic<bool> ended_{false};
    std::thread drawer_;
};

}  // namespace emulator
