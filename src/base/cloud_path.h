// Every path of the device that the program touches, except the broker's socket (cloud_wire.h) and the
// switches of the library's log (cloud_switch.h).
#pragma once

#include "wrapper.h"

inline constexpr char kConsolePath[] = "/dev/console";

// While it is there the switches of the library's log are left alone.
inline constexpr char kDebugSwitchPath[] = "/tmp/cloud.debug";

// Device information, written by other programs.
inline constexpr char kDeviceInfoPath[] = "/tmp/device.info";
inline constexpr char kSoftInfoPath[] = "/tmp/softinfo";

// Firmware.
inline constexpr char kStatusPath[] = "/tmp/cloud.info";
inline constexpr char kDownloadLockPath[] = "/tmp/cloud_dl_img.lock";
inline constexpr char kUpgradeLockPath[] = "/tmp/cloud_up_img.lock";
inline constexpr char kPartialImagePath[] = "/tmp/cloud_up_img.bin";
inline constexpr char kFinishedImagePath[] = WRP_IMAGE_FILE;
inline constexpr char kImageNamePath[] = "/tmp/cloud_img.name";
inline constexpr char kImageSizePath[] = "/tmp/cloud_img.size";

// Account state, read by the web back end.
inline constexpr char kErrorPath[] = "/tmp/cloud.error";
inline constexpr char kLoginPath[] = "/tmp/cloud.login";
inline constexpr char kTokenPath[] = "/tmp/cloud.token";
inline constexpr char kPasswdPath[] = "/tmp/passwd";
inline constexpr char kCacheFolder[] = "/tmp/cloud_data_cache";
inline constexpr char kFactoryPath[] = "/tmp/factory.part";

// Datagram sockets between the program and the management daemon.
inline constexpr char kOwnSocketPath[] = "/tmp/cloud_msg_unix";
inline constexpr char kDaemonSocketPath[] = "/tmp/cloud_kmpd_unix";

// Scripts of the device, as started through its shell.
inline constexpr char kReloadCommand[] = "/usr/bin/dropbreload &";
inline constexpr char kDeleteTokenFormat[] = "sh /usr/bin/deleteToken.sh %s &";
