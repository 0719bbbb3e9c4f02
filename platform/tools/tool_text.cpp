#include "tool_text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "nearest_word.h"

namespace {

// What the platform means by these; of the others the system's own words tell enough.
[[nodiscard]] const char *_reason_text(int reason) {
    switch (reason) {
        case 0:
            return "no reason is known";
        case EPERM:
            return "it is no regular file of root's or of this user's alone";
        case EBADMSG:
            return "it does not hold what it should";
        case EBUSY:
            return "another program holds it";
        default:
            return strerror(reason);
    }
}

}  // namespace

bool tool_answersVersion(const char *tool, int argc, char **argv) {
    if (argc != 2 || strcmp(argv[1], "--version") != 0) {
        return false;
    }
    printf("%s %s\n", tool, CLOUD_VERSION);
    return true;
}

int tool_wrongWord(const char *tool, const char *kind, const char *word, std::span<const char *const> known) {
    const std::string_view near = nearest_word(word, known);
    fprintf(stderr, "%s: there is no %s %s", tool, word[0] == '-' ? "option" : kind, word);
    if (!near.empty()) {
        fprintf(stderr, "; did you mean %.*s?", static_cast<int>(near.size()), near.data());
    }
    fprintf(stderr, "\n");
    return kExitUsage;
}

int tool_fileFailed(const char *tool, const char *path, const char *what, int reason) {
    fprintf(stderr, "%s: %s: cannot be %s: %s\n", tool, path, what, _reason_text(reason));
    return kExitFailed;
}

int tool_ended(const char *tool, int status) {
    errno = 0;
    if (fflush(stdout) == 0 && ferror(stdout) == 0) {
        return status;
    }
    const int failed = tool_fileFailed(tool, "standard output", "written", errno);
    return status != 0 ? status : failed;
}
