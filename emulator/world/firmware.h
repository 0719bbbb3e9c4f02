// Firmware for the emulated device: what the cloud offers, and the status file.
#pragma once

#include <cstddef>
#include <string>

#include "device.h"
#include "image_server.h"

namespace emulator {

inline constexpr const char *kStatusPath = "/tmp/cloud.info";
inline constexpr const char *kPartialImage =
    "/tmp/cloud_up_img.bin";  ///< a download that was cut goes on with it
inline constexpr const char *kNewVersion = "1.0.7 Build 20210611 Rel.51820";

/// Has the cloud offer an image of a version as its only firmware. The image is made by `cloud_image` when
/// the server is first asked for it; when that fails, the journal gets a "scenario_error".
void offer_firmware(Device &device, ImageServer &server, const std::string &version, size_t payloadBytes);

/// Makes the status file as the web interface does.
void put_status_file();

}  // namespace emulator
