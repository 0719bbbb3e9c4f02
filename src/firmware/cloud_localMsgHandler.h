// The firmware commands: check, download, update; and the repair of the cloud link. Their outcome goes to
// the status file and the log. Each runs on the caller's thread, once in a process.
#pragma once

#include <cstdint>

/// "check": asks the cloud for newer firmware. @return 1.
int fwCheckUpdateMsgHandler();

/// "download": fetches the image that the last check found, whatever an earlier run left of it kept.
/// @return 1 when the download ran, whatever its outcome; 0 when there was nothing to fetch or one is pending
///         (logged).
int fwDownloadMsgHandler();

/// "update": after 5 seconds has the platform verify and install the downloaded image. Does not return when
/// that starts: the device restarts. @return 1.
/// Contract: the name is spelled so.
int fwUpdateMsgHander();

/// Verifies and installs the image. @param reserved  not used.
/// @return 0 when it was refused; does not return otherwise.
int cloud_upgradeFirmware(int reserved);

/// The same without the status of a refusal. @return 0 when it was refused; does not return otherwise.
[[nodiscard]] int verifyAndUpgradeFw(int reserved);

/// The platform's part: has the store verify the image and, within a transaction, install it.
/// Contract: clears the stored firmware information between the two, also for an upgrade that is refused.
/// @param reserved, imageLength  not used: the store knows the image's file.
/// @return 0 when the upgrade was accepted, and the transaction stays open until the device restarts; 1
///         when the image or the upgrade was refused; the store's code when there is no transaction.
[[nodiscard]] int cloud_updateFirmware(int reserved, uint32_t imageLength);

// Interface only: no command calls what follows.

/// Repairs the link to the cloud. @return 1 when cloud_checkSslPath finds it good; 0 otherwise.
[[nodiscard]] int reconnCloudSrvHandler();

/// Handlers for messages that need no action: one answers that it is done, the other that it is not.
int fwDoneMsgHandler();
int fwNotDoneMsgHandler();
