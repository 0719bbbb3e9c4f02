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
constexpr size_t kPathRoom = 128;
constexpr uint64_t kBlockBytes = 512;  // unit of st_blocks

// Blanks for the rest of a longer old content, which are cut off only afterwards: a reader in between finds
// text and blanks, not the end of the old text.
constexpr auto kBlanks = [] {
    std::array<char, 512> blanks{};
    blanks.fill(' ');
    return blanks;
}();

bool _write_whole(int fd, const char *text, size_t length, size_t blanks = 0) {
    const std::array parts{iovec{const_cast<char *>(text), length},
                           iovec{const_cast<char *>(kBlanks.data()), std::min(blanks, kBlanks.size())}};
    ssize_t written = 0;
    do {
        written = pwritev(fd, parts.data(), parts.size(), 0);
    } while (written < 0 && errno == EINTR);
    return written >= 0 && static_cast<size_t>(written) >= length;
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
    const auto oldLength = static_cast<size_t>(status.st_size);
    return _write_whole(file.get(), text, length, oldLength > length ? oldLength - length : 0) &&
           ftruncate(file.get(), static_cast<off_t>(length)) == 0;
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
