#include "cloud_accountPasswd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "cloud_owner.h"
#include "cloud_path.h"
#include "cloud_replaceFile.h"
#include "cloud_util.h"

namespace cloud_account {
namespace {

constexpr size_t kUserRoom = 129;

using LowerName = std::array<char, kUserRoom>;

[[nodiscard]] LowerName _lower_case(const char *user) {
    LowerName name;
    cstr_strncpy(name.data(), user, name.size());
    for (char &character : name) {
        character = static_cast<char>(tolower(static_cast<unsigned char>(character)));
    }
    return name;
}

/// Reads a whole regular file. @return its bytes, `length` of them; null when that fails.
[[nodiscard]] HeapText _read_file(int fd, size_t *length) {
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        return nullptr;
    }
    const auto size = static_cast<size_t>(info.st_size);
    HeapText text(static_cast<char *>(malloc(size + 1)));
    size_t have = 0;
    while (text != nullptr && have < size) {
        const ssize_t got = read(fd, text.get() + have, size - have);
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

[[nodiscard]] bool _belongs_to(std::string_view line, std::string_view name) {
    return line.size() > name.size() && line[name.size()] == ':' &&
           memcmp(line.data(), name.data(), name.size()) == 0;
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

}  // namespace

void _remove_passwd_user(const char *user) {
    const LowerName name = _lower_case(user);
    const UniqueFd file(open(kPasswdPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.ok() || name[0] == '\0' || access(kPasswdPath, W_OK) != 0) {
        return;
    }
    size_t length = 0;
    const HeapText text = _read_file(file.get(), &length);
    if (text == nullptr) {
        return;
    }
    const size_t kept = _keep_others(text.get(), length, name.data());
    if (kept < length) {
        static_cast<void>(cloud_replaceFile(kPasswdPath, {text.get(), kept}));
    }
}

}  // namespace cloud_account
