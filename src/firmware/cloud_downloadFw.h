// The download step: fetches the firmware image and puts it where the upgrade looks for it. And the image
// buffer, which no command uses, because images go to a file. For one thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cloud_userConfig.h"

struct DownloadInfo {
    char url[kFirmwareUrlRoom];
    char *localPath;  // kLocalPathRoom bytes of the handler's for the length of one download; else null
};

/// While it is 1 a check leaves the status file as it is.
/// Contract: cleared at the end of a transfer, and set by the download command after that.
extern constinit uint16_t g_fwDownloadFlag;  // NOLINT(bugprone-dynamic-static-initializers): a declaration

/// Fetches the image to kFinishedImagePath and waits a second for readers of the status.
/// @return 1; 0 on failure (logged). The status file says how it went.
[[nodiscard]] int cloud_downloadFwByHttp(DownloadInfo *downloadInfo);

/// The same without the wait. @return 0; -1 on failure (logged).
[[nodiscard]] int downloadFwByHttpClient(DownloadInfo *downloadInfo);

// Interface only: no command calls what follows.

/// Bytes of the firmware image buffer: 10 MiB and 260.
[[nodiscard]] size_t cmem_getUpdateBufSize();

/// Contract: asks for the memory twice.
/// @return an image buffer, given back with cmem_updateFirmwareBufFree; null without memory.
[[nodiscard]] void *cmem_updateFirmwareBufMalloc();

/// Gives back an image buffer; null stops the program. @return 1.
int cmem_updateFirmwareBufFree(void *buffer);
