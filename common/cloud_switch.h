// The switch files of the client library's log: the library looks for them, the program removes those that an
// earlier session has left. And what counts as a switch file. Safe in any thread.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

/// By their level. The first switches nothing. Texts in place, so that there are no pointers to relocate.
inline constexpr char kLogSwitchPaths[][11] = {"/tmp/log.0", "/tmp/log.1", "/tmp/log.2", "/tmp/log.3",
                                               "/tmp/log.4"};

/// Whether a file is a regular one of root or the own user. Any user can put other things under "/tmp".
[[nodiscard]] inline bool cloud_isTrusted(const struct stat &status) {
    return S_ISREG(status.st_mode) && (status.st_uid == 0 || status.st_uid == geteuid());
}

/// Whether a switch file is set: a trusted file, by no link.
[[nodiscard]] inline bool cloud_isSwitchedOn(const char *path) {
    struct stat status {};
    return lstat(path, &status) == 0 && cloud_isTrusted(status);
}
