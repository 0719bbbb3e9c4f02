// The download step: fetches the firmware image and puts it where the upgrade looks for it; and the image
// buffer, which no command uses, because images go to a file.
#pragma once

#include <cstddef>
#include <cstdint>

/// Bytes of a firmware address with its terminator.
inline constexpr size_t kFirmwareUrlRoom = 1024;

struct DownloadInfo {
    char url[kFirmwareUrlRoom];
    char *localPath;  // kLocalPathRoom bytes of the handler's for the length of one download; else null
};

/// 1 once a download has been started in this process; a check then leaves the status file alone.
extern constinit uint16_t g_fwDownloadFlag;  // NOLINT(bugprone-dynamic-static-initializers): a declaration

/// Fetches the image to kFinishedImagePath and waits a second for readers of the status.
/// @return 1; 0 on failure (logged). The status file says how it went.
[[nodiscard]] int cloud_downloadFwByHttp(DownloadInfo *downloadInfo);

/// The same without the wait. @return 0; -1 on failure (logged).
[[nodiscard]] int downloadFwByHttpClient(DownloadInfo *downloadInfo);

// For other programs of the device; no command calls what follows.

/// Bytes of the firmware image buffer: 10 MiB and 260.
[[nodiscard]] size_t cmem_getUpdateBufSize();

/// @return an image buffer, given back with cmem_updateFirmwareBufFree; null without memory.
[[nodiscard]] void *cmem_updateFirmwareBufMalloc();

/// Gives back an image buffer; null stops the program. @return 1.
int cmem_updateFirmwareBufFree(void *buffer);
