// The files that a device sees: its own /tmp, /mnt, /dev and /usr/bin; everything else is the host's.
#pragma once

#include <string>
#include <vector>

namespace emulator {

struct DeviceOptions {
    std::string flash;              ///< host folder to use as the device's flash; empty: a private one
    std::vector<std::string> keep;  ///< host paths that must stay readable if they lie below /tmp or /mnt
};

/// Makes the root, in the mount namespace of the calling process, and sets the environment of the device's
/// programs: PATH, CLOUD_FLASH_DIR, CLOUD_STORE_FILE, CLOUD_RSA_KEY_FILE.
/// @throws std::system_error  a mount or a file cannot be had.
void make_device_root(const DeviceOptions &options);

/// Makes the device's /tmp empty; host folders that had to be kept in it stay.
/// @throws std::system_error  something in it cannot be removed.
void clear_tmp();

/// Makes the device's flash empty, unless it is a folder of the host.
void clear_flash();

// Places of the emulator's own inside the device.
inline constexpr const char *kPrivateFolder = "/dev/.extender";
inline constexpr const char *kRecorderPath = "/dev/.extender/recorder";
inline constexpr const char *kConsolePath = "/dev/console";
inline constexpr const char *kFlashPath = "/mnt";

}  // namespace emulator
