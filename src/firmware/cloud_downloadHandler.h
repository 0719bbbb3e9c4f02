// The one pending download: its entry, and the handler that carries it out and notes the outcome in the
// status file.
//
// The download command stores an entry and runs the handler, both on its own thread; there is no lock.
#pragma once

#include <cstdint>

#include "cloud_downloadFw.h"

/// Values of DownloadEntry's state and resource type.
inline constexpr uint32_t kEntryFree = 0;
inline constexpr uint32_t kEntryPending = 1;
inline constexpr uint32_t kResourceFirmware = 0;  // all others are refused

struct DownloadEntry {
    uint32_t state;
    uint32_t resourceType;
    DownloadInfo info;
};

/// Makes an address the pending download. @param url  kept to 1023 characters.
/// @return 1; 0 for null, or while another one is pending (logged).
[[nodiscard]] int cloud_storeFwMsgInDeviceTree(const char *url);

/// Makes an entry the pending one (copied). @return 1; 0 for null, or while another one is pending (logged).
[[nodiscard]] int storeDownloadEntryInDeviceTree(const DownloadEntry *entry);

/// Carries out the pending download; the entry is free afterwards.
/// @return 1 whatever the outcome, which the status file tells; 0 when none was pending (logged).
int downloadHandler();

/// Fetches an entry's resource. @return 1; 0 on failure (logged).
[[nodiscard]] int downloadFromCloud(DownloadEntry *entry);

// Interface only: no command calls what follows.

/// Starts a thread that runs the handler once.
/// Contract: clears the entry first, so the handler finds none.
/// @return 1; 0 on failure (logged).
[[nodiscard]] int cloud_initPthreadDownloadHandler();
