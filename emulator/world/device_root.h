// What a device sees as its files: its own /tmp, /mnt, /dev and /usr/bin, the host's everything else.
#pragma once

#include <string>
#include <vector>

namespace emulator {

struct DeviceOptions {
    std::string flash;              ///< host folder to use as the device's flash; empty: a private one
    std::vector<std::string> keep;  ///< host paths that must stay readable if they lie below /tmp or /mnt
};

/// Makes the root, in a mount namespace of its own, and the environment that goes with it.
/// @throws std::system_error  a mount or a file cannot be had.
void make_device_root(const DeviceOptions &options);

/// Makes the device's /tmp empty; host folders that had to be kept in it stay.
void clear_tmp();

/// Makes the device's flash empty, unless it is a folder of the host.
void clear_flash();

// Places of the emulator's own inside the device.
inline constexpr const char *kPrivateFolder = "/dev/.extender";
inline constexpr const char *kRecorderPath = "/dev/.extender/recorder";
inline constexpr const char *kConsolePath = "/dev/console";
inline constexpr const char *kFlashPath = "/mnt";

}  // namespace emulator
