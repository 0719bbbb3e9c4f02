// cloud_image: makes firmware image files, and tells what one holds.

#include <fcntl.h>
#include <sys/stat.h>

#include <charconv>
#include <cstdio>
#include <cstring>

#include "fw_image.h"
#include "state_file.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

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

[[nodiscard]] int _usage() {
    fprintf(stderr,
            "Usage: cloud_image make --version TEXT (--size BYTES | --payload FILE) -o FILE\n"
            "       cloud_image info FILE\n");
    return kExitUsage;
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

[[nodiscard]] int _make_from(const MakeOptions &options, uint64_t size, ImageSource source, void *context) {
    const UniqueFd output(open(options.output, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!output.ok()) {
        return _failed(options.output, strerror(errno));
    }
    if (!image_make(output.get(), options.version, size, source, context)) {
        unlink(options.output);
        return _failed(options.output, "not made: version text, payload length or disk");
    }
    return 0;
}

[[nodiscard]] int _make(const MakeOptions &options) {
    if (options.payload != nullptr) {
        int payload = image_open(options.payload);
        const UniqueFd owner(payload);
        struct stat found {};
        if (!owner.ok() || fstat(payload, &found) != 0) {
            return _failed(options.payload, "cannot be read");
        }
        return _make_from(options, static_cast<uint64_t>(found.st_size), _fill_from_file, &payload);
    }
    uint64_t size = 0;
    const char *const end = options.size + strlen(options.size);
    const auto [stop, error] = std::from_chars(options.size, end, size);
    if (error != std::errc{} || stop != end) {
        return _usage();
    }
    uint64_t state = 0x9e3779b97f4a7c15;
    return _make_from(options, size, _fill_pattern, &state);
}

[[nodiscard]] int _info(const char *path) {
    const UniqueFd image(image_open(path));
    ImageHeader header;
    const ImageError error = image.ok() ? image_check(image.get(), -1, &header) : kImageUnreadable;
    if (error != kImageGood) {
        fprintf(stderr, "cloud_image: %s: error %d, %s\n", path, error, image_errorText(error));
        return kExitFailed;
    }
    const int printed = printf("version: %s\npayload: %u bytes\nchecksum: good\n", header.version,
                               static_cast<unsigned>(image_payloadLength(header)));
    return printed >= 0 ? 0 : kExitFailed;
}

}  // namespace

int main(int argc, char **argv) {
    const std::string_view command = argc > 1 ? argv[1] : "";
    if (command == "info" && argc == 3) {
        return _info(argv[2]);
    }
    MakeOptions options;
    if (command == "make" && _parse_options(argc - 2, argv + 2, &options)) {
        return _make(options);
    }
    return _usage();
}
