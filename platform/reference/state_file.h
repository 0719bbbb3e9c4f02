// Where the reference platform keeps its state, and how a file of it is replaced.
//
// A file is written beside its place as "<path>.new" and renamed: a reader sees the old file or the new
// one, never a half, and a writer that is killed leaves nothing in the way of the next. The lock on the
// ".new" file lets one writer at a time at it, over all processes.
#pragma once

#include <limits.h>
#include <sys/stat.h>

#include <array>
#include <cstddef>
#include <span>

#include "cloud_owner.h"

using PathText = std::array<char, PATH_MAX>;

inline constexpr char kStoreFileVariable[] = "CLOUD_STORE_FILE";
inline constexpr char kKeyFileVariable[] = "CLOUD_RSA_KEY_FILE";
inline constexpr char kFlashFolderVariable[] = "CLOUD_FLASH_DIR";

/// Finds the store's file: kStoreFileVariable, else the user's or (for root) the system's state folder.
/// @return false when the path is too long or the user has no home; *path is then not to be used.
[[nodiscard]] bool state_storeFile(PathText *path);

/// Finds the RSA key's file: kKeyFileVariable, else beside the store's file.
[[nodiscard]] bool state_keyFile(PathText *path);

/// Finds a file of the emulated flash: in the folder kFlashFolderVariable, else beside the store's file.
[[nodiscard]] bool state_flashFile(const char *name, PathText *path);

/// Makes the folder of a file, and those above it, for this user only. @return false when it cannot.
[[nodiscard]] bool state_makeFolderOf(const PathText &file);

/// Whether a file may be trusted and written in place: a regular file without a second name, of root or this
/// user. The tools run as root, and the folder that a variable names may be open to others.
[[nodiscard]] bool state_isOwnFile(const struct stat &found);

/// Reads until the room is full or the file ends. @return bytes read; -1 on a read error.
[[nodiscard]] ssize_t state_readAll(int fd, std::span<unsigned char> room);

/// Writes all bytes. @return false on an error (the disk is full, for one).
[[nodiscard]] bool state_writeAll(int fd, std::span<const unsigned char> bytes);

/// The successor of a file, until it is put in the file's place.
class PendingFile {
public:
    enum class Wait { kUntilFree, kNever };  // while another process writes the same file

    PendingFile() = default;
    PendingFile(const PendingFile &) = delete;
    PendingFile &operator=(const PendingFile &) = delete;
    ~PendingFile();  // removes what was not committed

    /// Makes the folder and the empty ".new" file (mode 0600), and locks it. False, too, when something
    /// stands there that is no own file: it stays as it is.
    [[nodiscard]] bool open(const PathText &path, Wait wait);
    [[nodiscard]] int fd() const { return fd_.get(); }
    /// Brings the bytes to the disk and renames the file into place.
    [[nodiscard]] bool commit();

private:
    PathText path_{};
    PathText temporary_{};
    UniqueFd fd_;
};
