#include "cloud_replaceFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "cloud_owner.h"

namespace {

constexpr mode_t kFileMode = 0644;
constexpr size_t kPathRoom = 128;
constexpr uint64_t kBlockBytes = 512;  // unit of st_blocks

bool _write_whole(int fd, const char *text, size_t length) {
    ssize_t written = 0;
    do {
        written = pwrite(fd, text, length, 0);
    } while (written < 0 && errno == EINTR);
    return written >= 0 && static_cast<size_t>(written) == length;
}

// On a full disk a new file gets no room, but the old one keeps its own.
bool _overwrite(const char *path, const char *text, size_t length) {
    const UniqueFd file(open(path, O_WRONLY | O_CLOEXEC));
    struct stat status {};
    if (!file.ok() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return false;
    }
    if (static_cast<uint64_t>(status.st_blocks) * kBlockBytes < length) {
        return false;
    }
    return _write_whole(file.get(), text, length) && ftruncate(file.get(), static_cast<off_t>(length)) == 0;
}

}  // namespace

ReplaceResult cloud_replaceFile(const char *path, const char *text, size_t length) {
    std::array<char, kPathRoom> beside;
    snprintf(beside.data(), beside.size(), "%s.%ld", path, static_cast<long>(getpid()));
    unlink(beside.data());  // left by a killed process that had this id
    const UniqueFd file(open(beside.data(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
    if (!file.ok()) {
        return _overwrite(path, text, length) ? kReplaced : kReplaceOpenFailed;
    }
    if (_write_whole(file.get(), text, length) && rename(beside.data(), path) == 0) {
        return kReplaced;
    }
    unlink(beside.data());
    return _overwrite(path, text, length) ? kReplaced : kReplaceWriteFailed;
}
