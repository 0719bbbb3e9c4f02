#include "cloud_accountPasswd.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "cloud_accountLog.h"
#include "cloud_owner.h"
#include "cloud_path.h"
#include "cloud_replaceFile.h"
#include "cloud_userConfig.h"
#include "cloud_util.h"

namespace cloud_account {
namespace {

using LowerName = std::array<char, kUserNameRoom>;

[[nodiscard]] LowerName _lower_case(const char *user) {
    LowerName name;
    cstr_strncpy(name.data(), user, name.size());
    for (char &character : name) {
        character = static_cast<char>(tolower(static_cast<unsigned char>(character)));
    }
    return name;
}

/// Reads a whole file. @return its bytes, `length` of them; null when that fails.
[[nodiscard]] HeapText _read_file(int fd, size_t *length) {
    struct stat info {};
    if (fstat(fd, &info) != 0) {
        return nullptr;
    }
    const auto size = static_cast<size_t>(info.st_size);
    HeapText text(static_cast<char *>(malloc(size + 1)));
    size_t have = 0;
    while (text != nullptr && have < size) {
        const ssize_t got = read(fd, text.get() + have, size - have);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return nullptr;
        }
        if (got == 0) {
            break;
        }
        have += static_cast<size_t>(got);
    }
    *length = have;
    return text;
}

/// The first line of a text, its newline included.
[[nodiscard]] std::string_view _first_line(std::string_view text) {
    const size_t newline = text.find('\n');
    return {text.data(), newline == std::string_view::npos ? text.size() : newline + 1};
}

// What stands in front of the first ':', whole: a name that holds one itself is no line's.
[[nodiscard]] bool _belongs_to(std::string_view line, std::string_view name) {
    const size_t colon = line.find(':');
    return colon == name.size() && memcmp(line.data(), name.data(), colon) == 0;
}

/// Moves the lines to keep to the front. @return their bytes together.
[[nodiscard]] size_t _keep_others(char *text, size_t length, std::string_view name) {
    size_t kept = 0;
    for (std::string_view rest(text, length); !rest.empty();) {
        const std::string_view line = _first_line(rest);
        rest.remove_prefix(line.size());
        if (!_belongs_to(line, name)) {
            memmove(text + kept, line.data(), line.size());
            kept += line.size();
        }
    }
    return kept;
}

/// @return false when the file is there and cannot be read, or not be rewritten where it must be.
[[nodiscard]] bool _rewrite_without(std::string_view name) {
    UniqueFd file = cloud_openOwn(kPasswdPath, O_RDONLY);
    if (!file.ok()) {
        return errno == ENOENT;
    }
    if (access(kPasswdPath, W_OK) != 0) {
        return false;
    }
    // Half of what another writes in place would be kept as somebody's line.
    size_t length = 0;
    const bool locked = cloud_lockFile(file.get(), LOCK_SH);
    const HeapText text = locked ? _read_file(file.get(), &length) : nullptr;
    if (text == nullptr) {
        return false;
    }
    file.reset();  // and with it the lock, which would keep the writing out
    const size_t kept = _keep_others(text.get(), length, name);
    return kept == length || cloud_replaceFile(kPasswdPath, {text.get(), kept}) == kReplaced;
}

}  // namespace

void _remove_passwd_user(const char *user) {
    const LowerName name = _lower_case(user);
    if (name[0] != '\0' && !_rewrite_without(name.data())) {
        MSG_LOG("Remove user from %s failed.\n", kPasswdPath);
    }
}

}  // namespace cloud_account
