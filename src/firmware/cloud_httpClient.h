// Fetches the firmware image over HTTP or HTTPS into a fixed file of the RAM disk, and resumes what an
// earlier run left there.
//
// The state between runs is in files only: the partial image (kPartialImagePath; a finished one,
// kFinishedImagePath, is taken back as such), the name of the image it belongs to (kImageNamePath, "/tmp/"
// and the last part of its address, no newline) and the image's length (kImageSizePath, "<bytes>\n", -1 where
// the server did not tell it).
// Progress goes to the status file, once for each whole percent. All on one thread.
#pragma once

#include <cstddef>
#include <cstdint>

/// Bytes of the caller's buffer for a local path.
inline constexpr size_t kLocalPathRoom = 1024;

/// Values of `mode`: 1 fetches a firmware image, 0 other resources; there are no others.
inline constexpr unsigned int kFirmwareMode = 1;

struct HttpClientFileInfo {
    double localFileLength;  // bytes present here; grows as they arrive
    double totalFileLength;  // bytes as the server says; -1 when it does not
    int32_t progress;        // percent, as last reported
};

/// Progress of the transfer under way, or of the last one.
extern constinit HttpClientFileInfo
    g_httpClientFileInfo;  // NOLINT(bugprone-dynamic-static-initializers): a declaration

/// Fetches an image. Five failed attempts in a row that bring nothing give up; any that brings data starts
/// counting anew.
/// @param url        its last part names the image.
/// @param localPath  kLocalPathRoom bytes; receives the path of the file.
/// @param mode       0 or 1.
/// @return 0, also when the server tells no length and nothing was fetched; -1 on failure (logged, but for a
///         null localPath), and what has arrived stays for the next run, except when the server refuses to
///         resume.
[[nodiscard]] int cloud_httpClientDownloadFile(const char *url, char *localPath, unsigned int mode);

/// The download itself, the rest as above.
/// @param localPath  in: the image's name record; out: the path of the file.
[[nodiscard]] int cloud_httpClientGet(const char *url, char *localPath, unsigned int mode);

/// libcurl's write callback: appends to `stream`, a FILE without buffer, counts and reports.
/// @return bytes that were written; fewer than given end the transfer.
[[nodiscard]] size_t getWriteData(char *data, size_t size, size_t count, void *stream);

// Interface only: no command calls what follows.

/// @param sizeOut  receives bytes, UINT32_MAX at most. @return 0; -1 when there is no such file (logged).
[[nodiscard]] int getLocalFileLen(const char *path, uint32_t *sizeOut);
