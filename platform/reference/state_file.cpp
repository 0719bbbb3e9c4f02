#include "state_file.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kTurnsMax = 1000;
constexpr char kSystemStore[] = "/var/lib/cloud_msg/store.db";
constexpr char kUserStore[] = "/cloud_msg/store.db";  // below the user's state folder
constexpr char kHomeState[] = "/.local/state";
constexpr char kKeyName[] = "rsa_key.pem";
constexpr mode_t kFolderMode = 0700;
constexpr mode_t kFileMode = 0600;

// Joins up to three pieces; false when they do not fit with the terminator.
[[nodiscard]] bool _join(PathText *path, const char *first, const char *second, const char *third = "") {
    const int length = snprintf(path->data(), path->size(), "%s%s%s", first, second, third);
    return length >= 0 && static_cast<size_t>(length) < path->size();
}

// An empty variable counts as none, as it does for the system's own programs.
[[nodiscard]] const char *_variable(const char *name) {
    const char *const value = getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

[[nodiscard]] bool _beside_store(const char *name, PathText *path) {
    PathText store;
    if (!state_storeFile(&store)) {
        return false;
    }
    char *const slash = strrchr(store.data(), '/');
    if (slash == nullptr) {
        return _join(path, name, "");  // a bare name: the current folder
    }
    slash[1] = '\0';
    return _join(path, store.data(), name);
}

[[nodiscard]] bool _make_one_folder(const char *path) {
    struct stat found {};
    return mkdir(path, kFolderMode) == 0 ||
           (errno == EEXIST && stat(path, &found) == 0 && S_ISDIR(found.st_mode));
}

// The writer before may have renamed or removed the file while this one waited for its lock.
[[nodiscard]] bool _is_still_at(int fd, const char *path) {
    struct stat held {};
    struct stat named {};
    return fstat(fd, &held) == 0 && lstat(path, &named) == 0 && held.st_dev == named.st_dev &&
           held.st_ino == named.st_ino;
}

[[nodiscard]] bool _lock(int fd, PendingFile::Wait wait) {
    const int operation = wait == PendingFile::Wait::kNever ? LOCK_EX | LOCK_NB : LOCK_EX;
    int result = 0;
    do {
        result = flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

// The new name is only safe from a power cut once its folder is on the disk.
void _sync_folder_of(const PathText &file) {
    PathText folder = file;
    char *const slash = strrchr(folder.data(), '/');
    if (slash == nullptr) {
        folder = {'.'};
    } else {
        slash[slash == folder.data() ? 1 : 0] = '\0';
    }
    const UniqueFd fd(open(folder.data(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.ok()) {
        fsync(fd.get());
    }
}

}  // namespace

bool state_storeFile(PathText *path) {
    if (const char *const file = _variable(kStoreFileVariable)) {
        return _join(path, file, "");
    }
    if (geteuid() == 0) {
        return _join(path, kSystemStore, "");
    }
    if (const char *const state = _variable("XDG_STATE_HOME")) {
        return _join(path, state, kUserStore);
    }
    const char *const home = _variable("HOME");
    return home != nullptr && _join(path, home, kHomeState, kUserStore);
}

bool state_keyFile(PathText *path) {
    if (const char *const file = _variable(kKeyFileVariable)) {
        return _join(path, file, "");
    }
    return _beside_store(kKeyName, path);
}

bool state_flashFile(const char *name, PathText *path) {
    if (const char *const folder = _variable(kFlashFolderVariable)) {
        return _join(path, folder, "/", name);
    }
    return _beside_store(name, path);
}

bool state_makeFolderOf(const PathText &file) {
    PathText folder = file;
    for (char *at = folder.data() + 1; (at = strchr(at, '/')) != nullptr; ++at) {
        *at = '\0';
        if (!_make_one_folder(folder.data())) {
            return false;
        }
        *at = '/';
    }
    return true;
}

bool state_isOwnFile(const struct stat &found) {
    return S_ISREG(found.st_mode) && found.st_nlink == 1 && (found.st_uid == 0 || found.st_uid == geteuid());
}

ssize_t state_readAll(int fd, std::span<unsigned char> room) {
    size_t filled = 0;
    while (filled < room.size()) {
        const ssize_t got = read(fd, room.data() + filled, room.size() - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return -1;
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(filled);
}

bool state_writeAll(int fd, std::span<const unsigned char> bytes) {
    size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t put = write(fd, bytes.data() + written, bytes.size() - written);
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            return false;
        }
        written += static_cast<size_t>(put);
    }
    return true;
}

PendingFile::~PendingFile() {
    if (fd_.ok()) {
        unlink(temporary_.data());
    }
}

bool PendingFile::open(const PathText &path, Wait wait) {
    path_ = path;
    if (!_join(&temporary_, path.data(), ".new") || !state_makeFolderOf(path)) {
        return false;
    }
    // Each turn is lost to a writer that ended meanwhile; more than these is a system that cannot tell.
    for (int turns = 0; turns < kTurnsMax; ++turns) {
        constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        UniqueFd fd(::open(temporary_.data(), kFlags, kFileMode));
        if (!fd.ok() || !_lock(fd.get(), wait)) {
            return false;
        }
        struct stat found {};
        if (!_is_still_at(fd.get(), temporary_.data())) {
            continue;
        }
        if (fstat(fd.get(), &found) != 0 || !state_isOwnFile(found)) {
            return false;
        }
        fd_ = std::move(fd);  // what a killed writer left in it goes now
        return ftruncate(fd_.get(), 0) == 0 && fchmod(fd_.get(), kFileMode) == 0;
    }
    return false;
}

bool PendingFile::commit() {
    if (fsync(fd_.get()) != 0 || rename(temporary_.data(), path_.data()) != 0) {
        return false;
    }
    fd_.reset();
    _sync_folder_of(path_);
    return true;
}
