// The firmware image file: a header of 176 bytes, then the payload. Integers are big-endian.
//
//   offset size
//        0    8  magic "EXTIMAGE"
//        8    4  format version, 1
//       12    4  payload length in bytes, at least 1; nothing follows the payload
//       16  128  version text, 1 to 127 printable ASCII characters, NUL-padded
//      144   32  SHA-256 over the bytes 0 to 143 and the payload
//      176    -  payload
//
// The checksum finds damage, not forgery: it is no signature.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

/// What the store reports of an image: the first word of its replies.
enum ImageError : int32_t {
    kImageGood = 0,
    kImageUnreadable = 1,   // no such file, not a plain file, or a read error
    kImageNoMagic = 2,      // another kind of file, or shorter than the header
    kImageOtherFormat = 3,  // a format version that is not known here
    kImageBadLength = 4,    // cut off, or bytes after the payload
    kImageBadVersion = 5,   // no proper version text
    kImageBadChecksum = 6,
    kImageNotInstalled = 7,  // good, but the flash cannot be written
};

struct ImageHeader {
    char magic[8];
    uint8_t format[4];
    uint8_t payloadLength[4];
    char version[128];
    uint8_t digest[32];
};
static_assert(sizeof(ImageHeader) == 176 && alignof(ImageHeader) == 1);
static_assert(offsetof(ImageHeader, version) == 16 && offsetof(ImageHeader, digest) == 144);

/// Checks an image from the file's beginning, in constant memory.
/// @param fd      a file opened for reading, at offset 0.
/// @param copyTo  a descriptor that receives the image as it was checked; -1 for none.
/// @param header  out: the header; valid when the image is good.
/// @return kImageGood or what is wrong; kImageNotInstalled when copyTo could not be written.
[[nodiscard]] ImageError image_check(int fd, int copyTo, ImageHeader *header);

/// Opens a file for image_check without waiting on a pipe or device in its place.
/// @return the descriptor (the caller's); -1 when it is not there or no plain file.
[[nodiscard]] int image_open(const char *path);

/// Fills the next payload bytes; false ends the making with a failure.
using ImageSource = bool (*)(void *context, unsigned char *room, size_t size);

/// Whether the format holds this version text: 1 to 127 printable ASCII characters.
[[nodiscard]] bool image_isVersionText(std::string_view text);

/// Writes an image to a file opened for writing, at offset 0.
/// @return false for a version text or length (0, 2^32 or more) that the format does not hold, or a failing
///     source or file.
[[nodiscard]] bool image_make(int fd, std::string_view version, uint64_t payloadLength, ImageSource source,
                              void *context);

/// The payload's length as the header says it.
[[nodiscard]] uint32_t image_payloadLength(const ImageHeader &header);

/// A text for people; never null.
[[nodiscard]] const char *image_errorText(ImageError error);
