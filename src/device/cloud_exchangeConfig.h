// The firmware status file, through which the web interface follows the firmware commands.
//
// kStatusPath holds one JSON object of at most 511 bytes that another component makes; three of its members
// are ours: "fw_status", "dwProgress" (percent), "cloud_start". All others keep their order and values;
// ours move to the end. A document that grows beyond 511 bytes by that is written, and then no longer read:
// who makes it leaves room for ours. The file is replaced as a whole and never created. No lock: of two
// updates at once one may be lost.
#pragma once

#include <cstdint>

/// Values of "fw_status".
enum FwStatus : int {
    kFwDownloading = 1,
    kFwDownloaded = 2,
    kFwInstalling = 3,  // being verified and written; the device then restarts
    kFwChecking = 4,
    kFwChecked = 5,
    kFwStarting = 11,  // or resuming, with the share already there
    kFwDownloadFailed = 20000,
    kFwVerifyFailed = 20001,
    kFwCheckFailed = 20003,
    kFwNoMemory = 20004,
};

/// Writes "fw_status" and "dwProgress". Logs the progress, or what failed.
/// @param status  an FwStatus. @param progress  percent.
/// @return 1 when the file was rewritten; 0 otherwise, and it is as it was.
int cloud_setFirmwareDownloadStatus(int status, int progress);

/// Writes "cloud_start", the mark of a started cloud upgrade. Logs only what failed.
/// @return 1 when the file was rewritten; 0 otherwise, and it is as it was.
int cloud_setFirmwareUpgradeStart(unsigned int value);
