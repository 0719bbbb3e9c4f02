// Files in the RAM disk, which is open to every user of the device.
//
// A small state file is replaced as a whole: a reader, and the next run after a kill or with a full RAM disk,
// sees the old content or the new, never a half or none. No file of the program's own is opened through a
// symbolic link, and no opening waits. Safe in any thread and between processes.
#pragma once

#include <sys/types.h>

#include <string_view>

#include "cloud_owner.h"

enum ReplaceResult {
    kReplaced = 0,
    kReplaceOpenFailed = -1,   // no file could be made, or not be put in place (a folder is there)
    kReplaceWriteFailed = -2,  // no room
};

/// Modes of a new file: for everybody to read, or with a secret inside.
inline constexpr mode_t kPublicMode = 0644;
inline constexpr mode_t kSecretMode = 0600;

/// Opens a regular file as it stands, never through a symbolic link. For writing it must also belong to root
/// or the own user and have one name: whoever else made it, or has it under a second name, would choose what
/// a run of root writes to.
/// @param flags  of open(); with O_CREAT a missing file is made with `mode`.
/// @return its owner; not ok(), with errno, for all that does not open or must not.
[[nodiscard]] UniqueFd cloud_openOwn(const char *path, int flags, mode_t mode = kPublicMode);

/// The same for reading what another program provides: links are followed, but only to a regular file.
[[nodiscard]] UniqueFd cloud_openSource(const char *path, int flags);

/// Takes the lock that every writer in place holds, shared or alone (`how`: LOCK_SH, LOCK_EX), waiting for a
/// second at most: any reader of the file could hold it for ever. It ends with the descriptor.
/// @return false when it was not to be had.
[[nodiscard]] bool cloud_lockFile(int fd, int how);

/// Gives a file new content: written beside, under a name of this call's own ("<path>.<process id>.<count>"),
/// and renamed over it. Mode bits, owner and group stay those of the old file where that was root's or the
/// own user's; a new one gets `mode`. What killed processes left beside is removed. Where there is no room
/// for a second file, or none can be put in place (a mounted file), the old one is overwritten under a lock,
/// if the text fits into what it occupies already and it is one that cloud_openOwn opens. Two may write at
/// once: the later one wins, and the file is what one of them wrote.
/// @param path    at most 255 characters.
/// @return a ReplaceResult; on failure the old content stays. Nothing is logged.
[[nodiscard]] ReplaceResult cloud_replaceFile(const char *path, std::string_view text,
                                              mode_t mode = kPublicMode);
