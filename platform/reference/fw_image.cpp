#include "fw_image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "mbedtls_names.h"
#include "state_file.h"

namespace {

constexpr char kMagic[] = {'E', 'X', 'T', 'I', 'M', 'A', 'G', 'E'};
constexpr uint32_t kFormat = 1;
constexpr size_t kChunkSize = size_t{16} * 1024;
using Chunk = std::array<unsigned char, kChunkSize>;

class Sha256 {
public:
    Sha256() {
        mbedtls_sha256_init(&state_);
        good_ = crypto_startSha256(&state_) == 0;
    }
    Sha256(const Sha256 &) = delete;
    Sha256 &operator=(const Sha256 &) = delete;
    ~Sha256() { mbedtls_sha256_free(&state_); }
    void add(const void *bytes, size_t size) {
        good_ = good_ && crypto_updateSha256(&state_, bytes, size) == 0;
    }
    [[nodiscard]] bool finish(uint8_t (&digest)[32]) {
        return good_ && crypto_finishSha256(&state_, digest) == 0;
    }

private:
    mbedtls_sha256_context state_{};
    bool good_ = false;
};

void _put32(uint8_t (&field)[4], uint32_t value) {
    for (uint8_t &byte : field) {
        byte = static_cast<uint8_t>(value >> 24);
        value <<= 8;
    }
}

[[nodiscard]] uint32_t _get32(const uint8_t (&field)[4]) {
    uint32_t value = 0;
    for (const uint8_t byte : field) {
        value = value << 8 | byte;
    }
    return value;
}

[[nodiscard]] bool _is_version_field(const char (&field)[128]) {
    const size_t length = strnlen(field, sizeof(field));
    return image_isVersionText({field, length}) &&
           std::all_of(field + length, field + sizeof(field), [](char c) { return c == '\0'; });
}

// The order gives each file the error that tells most about it.
[[nodiscard]] ImageError _check_header(const ImageHeader &header, off_t fileSize) {
    if (memcmp(header.magic, kMagic, sizeof(kMagic)) != 0) {
        return kImageNoMagic;
    }
    if (_get32(header.format) != kFormat) {
        return kImageOtherFormat;
    }
    const uint32_t length = image_payloadLength(header);
    if (length == 0 || fileSize != static_cast<off_t>(sizeof(ImageHeader)) + static_cast<off_t>(length)) {
        return kImageBadLength;
    }
    return _is_version_field(header.version) ? kImageGood : kImageBadVersion;
}

[[nodiscard]] ImageError _check_payload(int fd, int copyTo, const ImageHeader &header) {
    Chunk chunk;
    Sha256 sha;
    sha.add(&header, offsetof(ImageHeader, digest));
    for (size_t left = image_payloadLength(header); left > 0;) {
        const size_t size = std::min(left, chunk.size());
        const ssize_t got = state_readAll(fd, {chunk.data(), size});
        if (got < 0) {
            return kImageUnreadable;
        }
        if (static_cast<size_t>(got) != size) {
            return kImageBadLength;  // it shrank since its size was asked
        }
        sha.add(chunk.data(), size);
        if (copyTo >= 0 && !state_writeAll(copyTo, {chunk.data(), size})) {
            return kImageNotInstalled;
        }
        left -= size;
    }
    uint8_t digest[sizeof(header.digest)];
    return sha.finish(digest) && memcmp(digest, header.digest, sizeof(digest)) == 0 ? kImageGood
                                                                                    : kImageBadChecksum;
}

[[nodiscard]] std::span<unsigned char> _bytes_of(ImageHeader *header) {
    return {reinterpret_cast<unsigned char *>(header), sizeof(*header)};
}

}  // namespace

bool image_isVersionText(std::string_view text) {
    return !text.empty() && text.size() < sizeof(ImageHeader::version) &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

int image_open(const char *path) {
    UniqueFd fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat found {};
    if (!fd.ok() || fstat(fd.get(), &found) != 0 || !S_ISREG(found.st_mode)) {
        return -1;
    }
    return fd.release();
}

ImageError image_check(int fd, int copyTo, ImageHeader *header) {
    *header = {};
    struct stat found {};
    const ssize_t got = state_readAll(fd, _bytes_of(header));
    if (got < 0 || fstat(fd, &found) != 0) {
        return kImageUnreadable;
    }
    if (static_cast<size_t>(got) != sizeof(*header)) {
        return kImageNoMagic;
    }
    const ImageError error = _check_header(*header, found.st_size);
    if (error != kImageGood) {
        return error;
    }
    if (copyTo >= 0 && !state_writeAll(copyTo, _bytes_of(header))) {
        return kImageNotInstalled;
    }
    return _check_payload(fd, copyTo, *header);
}

bool image_make(int fd, std::string_view version, uint64_t payloadLength, ImageSource source, void *context) {
    if (!image_isVersionText(version) || payloadLength == 0 || payloadLength > UINT32_MAX) {
        return false;
    }
    ImageHeader header{};
    memcpy(header.magic, kMagic, sizeof(kMagic));
    _put32(header.format, kFormat);
    _put32(header.payloadLength, static_cast<uint32_t>(payloadLength));
    memcpy(header.version, version.data(), version.size());

    // The payload first, then the header that is complete only after it.
    Chunk chunk;
    Sha256 sha;
    sha.add(&header, offsetof(ImageHeader, digest));
    if (lseek(fd, sizeof(header), SEEK_SET) < 0) {
        return false;
    }
    for (uint64_t left = payloadLength; left > 0;) {
        const size_t size = static_cast<size_t>(std::min<uint64_t>(left, chunk.size()));
        if (!source(context, chunk.data(), size) || !state_writeAll(fd, {chunk.data(), size})) {
            return false;
        }
        sha.add(chunk.data(), size);
        left -= size;
    }
    return sha.finish(header.digest) && lseek(fd, 0, SEEK_SET) == 0 && state_writeAll(fd, _bytes_of(&header));
}

uint32_t image_payloadLength(const ImageHeader &header) {
    return _get32(header.payloadLength);
}

const char *image_errorText(ImageError error) {
    switch (error) {
        case kImageGood:
            return "good";
        case kImageUnreadable:
            return "cannot be read";
        case kImageNoMagic:
            return "not an image file";
        case kImageOtherFormat:
            return "image of another format version";
        case kImageBadLength:
            return "length differs from the header's";
        case kImageBadVersion:
            return "no proper version text";
        case kImageBadChecksum:
            return "checksum differs";
        case kImageNotInstalled:
            return "flash cannot be written";
    }
    return "unknown error";
}
