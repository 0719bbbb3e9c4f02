// The device's identity document, "/tmp/device.info": a JSON object that the system writes at start.
#pragma once

#include <cstddef>

#include "cloud_owner.h"

/// Longest document that is read, in bytes.
inline constexpr size_t kDeviceInfoMax = 131072;

enum class DeviceInfoError { kNone, kMemory, kOpen, kRead, kParse };

/// Reads and parses the document, in one read. Nothing is logged.
/// @param openFlags  access mode of open(). @param bytes  at most so many are read.
/// @param tree       out: the document, on kNone; else null, or untouched when it was not parsed.
[[nodiscard]] DeviceInfoError cloud_loadDeviceInfo(int openFlags, size_t bytes, JsonTree *tree);
