#include "cloud_replaceFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cloud_switch.h"

namespace {

constexpr mode_t kModeBits = 0777;     // a set-user-id bit is not handed on
constexpr size_t kPathRoom = 300;      // with process id and count
constexpr uint64_t kBlockBytes = 512;  // unit of st_blocks
constexpr int kLockTries = 100;
constexpr size_t kFillMax = 16;  // 8 KiB
constexpr long kLockRestNs = 10'000'000;

// Line ends for the rest of a longer old content, which are cut off only afterwards: a reader in between, and
// whoever comes after a run that was killed there, finds the text and empty lines, not the end of the old
// text.
constexpr auto kEmptyLines = [] {
    std::array<char, 512> ends{};
    ends.fill('\n');
    return ends;
}();

// Makes the names of two threads differ.
std::atomic<int> l_count{0};

// In one call: what a kill leaves is the old content or the new.
[[nodiscard]] bool _write_whole(int fd, std::string_view text, size_t emptyLines = 0) {
    std::array<iovec, 1 + kFillMax> parts{iovec{const_cast<char *>(text.data()), text.size()}};
    size_t count = 1;
    for (; emptyLines != 0 && count <= kFillMax; ++count) {
        const size_t size = std::min(emptyLines, kEmptyLines.size());
        parts[count] = {const_cast<char *>(kEmptyLines.data()), size};
        emptyLines -= size;
    }
    ssize_t written = 0;
    do {
        written = pwritev(fd, parts.data(), static_cast<int>(count), 0);
    } while (written < 0 && errno == EINTR);
    return written >= 0 && static_cast<size_t>(written) >= text.size();
}

// On a full disk a new file gets no room, but the old one keeps its own.
[[nodiscard]] bool _overwrite(const char *path, std::string_view text) {
    const UniqueFd file = cloud_openOwn(path, O_WRONLY);
    struct stat status {};
    if (!file.ok() || !cloud_lockFile(file.get(), LOCK_EX) || fstat(file.get(), &status) != 0 ||
        static_cast<uint64_t>(status.st_blocks) * kBlockBytes < text.size()) {
        return false;
    }
    const auto oldLength = static_cast<size_t>(status.st_size);
    return _write_whole(file.get(), text, oldLength > text.size() ? oldLength - text.size() : 0) &&
           ftruncate(file.get(), static_cast<off_t>(text.size())) == 0;
}

[[nodiscard]] UniqueFd _create(const char *path) {
    return UniqueFd(open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kSecretMode));
}

// Whoever may read the old file may read the new one, and nobody else. An old file of a stranger does not
// count: he may have made it to read what is written.
void _take_over(const char *path, int fd, mode_t mode) {
    struct stat old {};
    if (lstat(path, &old) == 0 && cloud_isTrusted(old)) {
        [[maybe_unused]] const int given = fchown(fd, old.st_uid, old.st_gid);
        mode = old.st_mode & kModeBits;
    }
    fchmod(fd, mode);
}

// The end of a name beside, ".<process id>.<count>", whose process is no more.
[[nodiscard]] bool _is_left(const char *end) {
    char *stop = nullptr;
    if (*end != '.' || strspn(end, ".0123456789") != strlen(end)) {
        return false;
    }
    const long pid = strtol(end + 1, &stop, 10);
    return *stop == '.' && pid > 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

// Removes what killed processes left beside a file.
// @param path    the file's. @param beside  kPathRoom bytes to build names in.
void _remove_leftovers(const char *path, char *beside) {
    const char *slash = strrchr(path, '/');
    const size_t folder = slash == nullptr ? 0 : static_cast<size_t>(slash - path) + 1;
    const size_t name = strlen(path + folder);
    snprintf(beside, kPathRoom, "%.*s", static_cast<int>(folder), path);
    const Directory entries(opendir(folder == 0 ? "." : beside));
    const dirent *entry = nullptr;
    while (entries != nullptr && (entry = readdir(entries.get())) != nullptr) {
        if (strncmp(entry->d_name, path + folder, name) == 0 && _is_left(entry->d_name + name)) {
            snprintf(beside + folder, kPathRoom - folder, "%s", entry->d_name);
            unlink(beside);
        }
    }
}

}  // namespace

UniqueFd cloud_openOwn(const char *path, int flags, mode_t mode) {
    UniqueFd file(open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    struct stat status {};
    if (!file.ok() || fstat(file.get(), &status) != 0) {
        file.reset();
        return file;
    }
    const bool writes = (flags & O_ACCMODE) != O_RDONLY;
    if (!S_ISREG(status.st_mode) || (writes && (!cloud_isTrusted(status) || status.st_nlink != 1))) {
        errno = EPERM;
        file.reset();
    }
    return file;
}

UniqueFd cloud_openSource(const char *path, int flags) {
    UniqueFd file(open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (file.ok() && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        errno = EPERM;
        file.reset();
    }
    return file;
}

bool cloud_lockFile(int fd, int how) {
    for (int i = 0; i < kLockTries; ++i) {
        if (flock(fd, how | LOCK_NB) == 0) {
            return true;
        }
        const timespec rest{0, kLockRestNs};
        nanosleep(&rest, nullptr);
    }
    return false;
}

ReplaceResult cloud_replaceFile(const char *path, std::string_view text, mode_t mode) {
    std::array<char, kPathRoom> beside;
    _remove_leftovers(path, beside.data());
    snprintf(beside.data(), beside.size(), "%s.%ld.%d", path, static_cast<long>(getpid()),
             l_count.fetch_add(1, std::memory_order_relaxed));
    UniqueFd file = _create(beside.data());
    if (!file.ok() && errno == EEXIST && unlink(beside.data()) == 0) {
        file = _create(beside.data());  // it was left by a killed process that had this id
    }
    if (!file.ok()) {
        return _overwrite(path, text) ? kReplaced : kReplaceOpenFailed;
    }
    const bool written = _write_whole(file.get(), text);
    if (written) {
        _take_over(path, file.get(), mode);
        if (rename(beside.data(), path) == 0) {
            return kReplaced;
        }
    }
    unlink(beside.data());
    if (_overwrite(path, text)) {
        return kReplaced;
    }
    return written ? kReplaceOpenFailed : kReplaceWriteFailed;
}
