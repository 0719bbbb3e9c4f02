#include "cloud_replaceFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "cloud_owner.h"

namespace {

constexpr mode_t kFileMode = 0644;
constexpr mode_t kModeBits = 07777;
constexpr size_t kPathRoom = 280;      // and the process id
constexpr uint64_t kBlockBytes = 512;  // unit of st_blocks

// Blanks for the rest of a longer old content, which are cut off only afterwards: a reader in between finds
// text and blanks, not the end of the old text.
constexpr auto kBlanks = [] {
    std::array<char, 512> blanks{};
    blanks.fill(' ');
    return blanks;
}();

bool _write_whole(int fd, std::string_view text, size_t blanks = 0) {
    const std::array parts{iovec{const_cast<char *>(text.data()), text.size()},
                           iovec{const_cast<char *>(kBlanks.data()), std::min(blanks, kBlanks.size())}};
    ssize_t written = 0;
    do {
        written = pwritev(fd, parts.data(), parts.size(), 0);
    } while (written < 0 && errno == EINTR);
    return written >= 0 && static_cast<size_t>(written) >= text.size();
}

// On a full disk a new file gets no room, but the old one keeps its own.
bool _overwrite(const char *path, std::string_view text) {
    const UniqueFd file(open(path, O_WRONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file.ok() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return false;
    }
    if (static_cast<uint64_t>(status.st_blocks) * kBlockBytes < text.size()) {
        return false;
    }
    const auto oldLength = static_cast<size_t>(status.st_size);
    return _write_whole(file.get(), text, oldLength > text.size() ? oldLength - text.size() : 0) &&
           ftruncate(file.get(), static_cast<off_t>(text.size())) == 0;
}

int _create(const char *path) {
    return open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode);
}

// Whoever may read the old file may read the new one, and nobody else.
void _take_over(const char *path, int fd) {
    struct stat old {};
    if (stat(path, &old) == 0) {
        static_cast<void>(fchown(fd, old.st_uid, old.st_gid));
        fchmod(fd, old.st_mode & kModeBits);
    }
}

}  // namespace

ReplaceResult cloud_replaceFile(const char *path, std::string_view text) {
    std::array<char, kPathRoom> beside;
    snprintf(beside.data(), beside.size(), "%s.%ld", path, static_cast<long>(getpid()));
    UniqueFd file(_create(beside.data()));
    if (!file.ok() && errno == EEXIST && unlink(beside.data()) == 0) {
        file.reset(_create(beside.data()));  // it was left by a killed process that had this id
    }
    if (!file.ok()) {
        return _overwrite(path, text) ? kReplaced : kReplaceOpenFailed;
    }
    _take_over(path, file.get());
    if (_write_whole(file.get(), text) && rename(beside.data(), path) == 0) {
        return kReplaced;
    }
    unlink(beside.data());
    return _overwrite(path, text) ? kReplaced : kReplaceWriteFailed;
}
