// Asks the cloud for newer firmware and hands the newest entry of its list to the configuration store.
//
// The request is {"method":"getIntlFwList","params":{"fwId","hwId","oemId","devFwCurrentVer"}}, the answer's
// "result" holds "fwList", an array of objects with "fwType", "fwVer", "fwReleaseDate", "fwUrl",
// "fwReleaseLog", "fwReleaseLogUrl", "fwLocation". The list is not compared with the device's own version:
// the cloud offers only what suits the version sent. All on the caller's thread.
#pragma once

#include <cstdint>

struct CheckInfo;

/// Makes the request for the firmware list.
/// @param info  its texts end; its software version is a version text (cloud_fwVersion.h).
/// @return a heap text that the caller releases with free(); null on failure (logged).
[[nodiscard]] char *getFwListCreateJsonMsg(const CheckInfo *info);

/// Handles the answer of a check: stores what it offers and writes the outcome into the status file; not
/// there while g_fwDownloadFlag is set (logged).
/// @param result  what sending gave. @param response  the answer's text; may be null.
void checkFwVerResultHandle(int32_t result, const char *response);

/// Sends the request and handles its answer, also where there is none.
/// @param byUser  0 for an automatic check: what its sending gave is kept. The next answer -3002 to a check
///                whose sending gave the same is then not counted as a time-out.
/// @return 1 when it was sent and answered, whatever the answer; 0 otherwise (logged).
[[nodiscard]] int checkFwVerFromCloud(int byUser);

/// Asks for the list and stores what it offers; the status file stays as it is.
/// @return 0 when sent and answered, whatever the answer; the negative code of a failed sending; -1 when
///         the request could not be made. Both are logged.
[[nodiscard]] int cloud_msg_getFwList();

/// The check that a user asked for. @return as checkFwVerFromCloud.
[[nodiscard]] int cloud_userCheckFwVerFromCloud();

// Interface only: no command calls what follows.

/// The automatic check. @return as checkFwVerFromCloud.
[[nodiscard]] int cloud_autoCheckFwVerFromCloud();
