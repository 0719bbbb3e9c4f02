// What the firmware tests share: a server of images, the status file seen by a watcher, images.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "device.h"
#include "image_server.h"
#include "program.h"

namespace firmware {

using emulator::Device;
using emulator::ImageServer;
using emulator::json;

using Strings = std::vector<std::string>;

inline const std::string kStatusFile = "/tmp/cloud.info";
inline const std::string kPartial = "/tmp/cloud_up_img.bin";
inline const std::string kFinished = "/tmp/httpUploadFile.bin";
inline const std::string kDownloadLock = "/tmp/cloud_dl_img.lock";
inline const std::string kNewVersion = "1.0.7 Build 20210611 Rel.51820";

/// Numbers that look random and are the same in each run (xorshift).
[[nodiscard]] inline uint64_t next_number(uint64_t &state) {
    state ^= state << 13U;
    state ^= state >> 7U;
    state ^= state << 17U;
    return state;
}

/// Content without period, so that bytes from a wrong offset show.
[[nodiscard]] std::string pattern(size_t size);

/// An image file as the platform accepts it.
[[nodiscard]] std::string image(Device &device, const std::string &version, size_t payloadBytes);

/// A list entry as the cloud gives it.
[[nodiscard]] json entry(const std::string &version, const std::string &url);

/// Puts the status file in its first state: members of others around ours.
void put_status_file();

/// The members that are not ours, in their order, as one line.
[[nodiscard]] std::string other_members();

/// Runs cloud_msg and returns the changes of the status file in order, as seen after each of its system
/// calls: "STATUS PROGRESS", and "start N" for the mark of a started upgrade.
[[nodiscard]] Strings watch(const Strings &arguments);

/// Makes the cloud offer a version at an address, and has the device take note of it.
void offer(Device &device, const std::string &url, const std::string &version = kNewVersion);

/// Records of the image server: "METHOD RANGE STATUS SENT".
[[nodiscard]] Strings requests(Device &device);

}  // namespace firmware
