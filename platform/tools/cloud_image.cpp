// cloud_image: makes firmware image files, and tells what one holds.

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fw_image.h"
#include "state_file.h"
#include "tool_text.h"

namespace {

constexpr char kTool[] = "cloud_image";
constexpr std::array kCommands{"make", "info", "--help", "--version"};
constexpr std::array kMakeOptions{"--version", "--size", "--payload", "-o"};
constexpr std::array kInfoOptions{"--json"};

struct MakeOptions {
    const char *version = nullptr;
    const char *size = nullptr;
    const char *payload = nullptr;
    const char *output = nullptr;
};

// A pattern without period within any image (xorshift), so that no stretch of it passes for another:
// a download that resumes at a wrong offset shows.
[[nodiscard]] bool _fill_pattern(void *context, unsigned char *room, size_t size) {
    auto *const state = static_cast<uint64_t *>(context);
    for (size_t i = 0; i < size; ++i) {
        *state ^= *state << 13;
        *state ^= *state >> 7;
        *state ^= *state << 17;
        room[i] = static_cast<unsigned char>(*state >> 32);
    }
    return true;
}

[[nodiscard]] bool _fill_from_file(void *context, unsigned char *room, size_t size) {
    return state_readAll(*static_cast<const int *>(context), {room, size}) == static_cast<ssize_t>(size);
}

[[nodiscard]] int _failed(const char *path, const char *fault) {
    fprintf(stderr, "cloud_image: %s: %s\n", path, fault);
    return kExitFailed;
}

[[nodiscard]] int _usage(FILE *output, int status) {
    fprintf(output,
            "Usage: cloud_image make --version TEXT (--size BYTES | --payload FILE) -o FILE\n"
            "       cloud_image info [--json] FILE\n"
            "       cloud_image --help | --version\n");
    return status;
}

[[nodiscard]] bool _parse_options(int argc, char **argv, MakeOptions *options) {
    if (argc % 2 != 0) {
        return false;
    }
    for (int i = 0; i < argc; i += 2) {
        const std::string_view name = argv[i];
        const char **const option = name == "--version"   ? &options->version
                                    : name == "--size"    ? &options->size
                                    : name == "--payload" ? &options->payload
                                    : name == "-o"        ? &options->output
                                                          : nullptr;
        if (option == nullptr || *option != nullptr) {
            return false;
        }
        *option = argv[i + 1];
    }
    return options->version != nullptr && options->output != nullptr &&
           (options->size != nullptr) != (options->payload != nullptr);
}

// The image while it is made: a file of its own beside the place that it takes once it is whole.
class NewFile {
public:
    explicit NewFile(const char *place) : place_(place) {
        const int length = snprintf(name_.data(), name_.size(), "%s.XXXXXX", place);
        if (length < 0 || static_cast<size_t>(length) >= name_.size()) {
            errno = ENAMETOOLONG;
            return;
        }
        fd_.reset(mkostemp(name_.data(), O_CLOEXEC));
    }
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;
    ~NewFile() {
        if (fd_.ok() && !placed_) {
            unlink(name_.data());
        }
    }
    [[nodiscard]] int fd() const { return fd_.get(); }
    [[nodiscard]] bool put_in_place() {
        const mode_t mask = umask(0);  // a new file's usual mode
        umask(mask);
        placed_ = fchmod(fd_.get(), 0666 & ~mask) == 0 && rename(name_.data(), place_) == 0;
        return placed_;
    }

private:
    const char *place_;
    PathText name_{};
    UniqueFd fd_;
    bool placed_ = false;
};

// @param payload  what the image is made from, or -1: it must not be what the image replaces.
[[nodiscard]] int _make_from(const MakeOptions &options, int payload, uint64_t size, ImageSource source,
                             void *context) {
    if (!image_isVersionText(options.version)) {
        return _failed("--version", "must be 1 to 127 printable ASCII characters");
    }
    if (size == 0 || size > UINT32_MAX) {
        return _failed(options.payload != nullptr ? options.payload : options.size,
                       "a payload has from 1 to 4294967295 bytes");
    }
    struct stat found {};
    struct stat from {};
    if (lstat(options.output, &found) == 0) {
        if (!S_ISREG(found.st_mode)) {
            return _failed(options.output, "is there and no regular file");
        }
        if (payload >= 0 && fstat(payload, &from) == 0 && from.st_dev == found.st_dev &&
            from.st_ino == found.st_ino) {
            return _failed(options.output, "is the payload");
        }
    }
    errno = 0;
    NewFile image(options.output);
    if (image.fd() < 0 || !image_make(image.fd(), options.version, size, source, context) ||
        !image.put_in_place()) {
        return _failed(options.output, errno != 0 ? strerror(errno) : "the payload became shorter");
    }
    return 0;
}

// @param reason  errno; 0: the file opens, but is no regular one.
[[nodiscard]] const char *_open_fault(int reason) {
    return reason != 0 ? strerror(reason) : "it is no regular file";
}

[[nodiscard]] int _make(const MakeOptions &options) {
    if (options.payload != nullptr) {
        errno = 0;
        int payload = image_open(options.payload);
        const UniqueFd owner(payload);
        struct stat found {};
        if (!owner.ok() || fstat(payload, &found) != 0) {
            return _failed(options.payload, _open_fault(errno));
        }
        return _make_from(options, payload, static_cast<uint64_t>(found.st_size), _fill_from_file, &payload);
    }
    uint64_t size = 0;
    const char *const end = options.size + strlen(options.size);
    const auto [stop, error] = std::from_chars(options.size, end, size);
    if (error != std::errc{} || stop != end) {
        static_cast<void>(_failed(options.size, "is no number of bytes"));
        return kExitUsage;
    }
    uint64_t state = 0x9e3779b97f4a7c15;
    return _make_from(options, -1, size, _fill_pattern, &state);
}

// One line of JSON. The version is printable ASCII: two of its characters are written otherwise.
void _print_json(const ImageHeader &header) {
    printf(R"({"version":")");
    for (const char *at = header.version; *at != '\0'; ++at) {
        if (*at == '"' || *at == '\\') {
            putchar('\\');
        }
        putchar(*at);
    }
    printf(R"(","payload":%u,"checksum":"good"})"
           "\n",
           static_cast<unsigned>(image_payloadLength(header)));
}

[[nodiscard]] int _info(const char *path, bool json) {
    errno = 0;
    const UniqueFd image(image_open(path));
    const char *const fault = image.ok() ? nullptr : _open_fault(errno);
    ImageHeader header;
    const ImageError error = image.ok() ? image_check(image.get(), -1, &header) : kImageUnreadable;
    if (error != kImageGood) {
        fprintf(stderr, "cloud_image: %s: error %d, %s%s%s\n", path, error, image_errorText(error),
                fault != nullptr ? ": " : "", fault != nullptr ? fault : "");
        return kExitFailed;
    }
    if (json) {
        _print_json(header);
    } else {
        printf("version: %s\npayload: %u bytes\nchecksum: good\n", header.version,
               static_cast<unsigned>(image_payloadLength(header)));
    }
    return 0;
}

// Says what is wrong with a command line that this tool does not know.
[[nodiscard]] int _wrong_use(int argc, char **argv) {
    const std::string_view command = argc > 1 ? argv[1] : "";
    if (argc > 1 && std::find(kCommands.begin(), kCommands.end(), command) == kCommands.end()) {
        return tool_wrongWord(kTool, "command", argv[1], kCommands);
    }
    for (int i = 2; command == "make" && i < argc; i += 2) {
        const std::string_view option = argv[i];
        if (std::find(kMakeOptions.begin(), kMakeOptions.end(), option) == kMakeOptions.end()) {
            return tool_wrongWord(kTool, "option", argv[i], kMakeOptions);
        }
    }
    if (command == "info" && argc > 2 && argv[2][0] == '-' && strcmp(argv[2], kInfoOptions[0]) != 0) {
        return tool_wrongWord(kTool, "option", argv[2], kInfoOptions);
    }
    return _usage(stderr, kExitUsage);
}

[[nodiscard]] int _run(int argc, char **argv) {
    const std::string_view command = argc > 1 ? argv[1] : "";
    if (argc == 2 && (command == "-h" || command == "--help")) {
        return _usage(stdout, 0);
    }
    if (tool_answersVersion(kTool, argc, argv)) {
        return 0;
    }
    const bool json = argc == 4 && strcmp(argv[2], "--json") == 0;
    if (command == "info" && (argc == 3 || json)) {
        return _info(argv[argc - 1], json);
    }
    MakeOptions options;
    if (command == "make" && _parse_options(argc - 2, argv + 2, &options)) {
        return _make(options);
    }
    return _wrong_use(argc, argv);
}

}  // namespace

int main(int argc, char **argv) {
    return tool_ended(kTool, _run(argc, argv));
}
