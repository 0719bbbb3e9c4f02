#include "base64.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "cloud_util.h"

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
constexpr char kPadding = '=';
constexpr size_t kGroupCharacters = 4;
constexpr size_t kGroupBytes = 3;

constexpr std::array<int8_t, 128> kValues = [] {
    std::array<int8_t, 128> values{};
    values.fill(-1);
    for (size_t i = 0; i < kAlphabet.size(); ++i) {
        values[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
    }
    return values;
}();
static_assert(kValues['A'] == 0 && kValues['/'] == 63 && kValues[kPadding] == -1);

int _value(char character) {
    const auto code = static_cast<unsigned char>(character);
    return code < kValues.size() ? kValues[code] : -1;
}

std::string_view _trim(std::string_view text) {
    while (!text.empty() && kWhiteSpace.find(text.front()) != std::string_view::npos) {
        text.remove_prefix(1);
    }
    while (!text.empty() && kWhiteSpace.find(text.back()) != std::string_view::npos) {
        text.remove_suffix(1);
    }
    return text;
}

struct Group {
    std::array<uint8_t, kGroupBytes> bytes;
    size_t count;  // bytes that are good
    bool valid;    // false: a character is wrong, after `count` good bytes
    bool last;     // padded
};

Group _decode_group(const char *text) {
    Group group{};
    const int first = _value(text[0]);
    const int second = _value(text[1]);
    if (first < 0 || second < 0) {
        return group;
    }
    group.bytes[0] = static_cast<uint8_t>(first << 2 | second >> 4);
    group.count = 1;
    group.last = text[3] == kPadding;
    if (group.last && text[2] == kPadding) {
        group.valid = true;
        return group;
    }
    const int third = _value(text[2]);
    if (third < 0) {
        return group;
    }
    group.bytes[1] = static_cast<uint8_t>((second & 0x0F) << 4 | third >> 2);
    group.count = 2;
    if (group.last) {
        group.valid = true;
        return group;
    }
    const int fourth = _value(text[3]);
    if (fourth < 0) {
        return group;
    }
    group.bytes[2] = static_cast<uint8_t>((third & 0x03) << 6 | fourth);
    group.count = kGroupBytes;
    group.valid = true;
    return group;
}

void _encode_group(char *out, const uint8_t *bytes, size_t count) {
    const unsigned first = bytes[0];
    const unsigned second = count > 1 ? bytes[1] : 0;
    const unsigned third = count > 2 ? bytes[2] : 0;
    out[0] = kAlphabet[first >> 2];
    out[1] = kAlphabet[(first & 0x03) << 4 | second >> 4];
    out[2] = count > 1 ? kAlphabet[(second & 0x0F) << 2 | third >> 6] : kPadding;
    out[3] = count > 2 ? kAlphabet[third & 0x3F] : kPadding;
}

}  // namespace

int32_t b64_decode(void *dst, int32_t dstlen, const char *src, int32_t srclen) {
    CLOUD_ASSERT(dst != nullptr && dstlen > 0, "dst != ((void *)0) && dstlen > 0");
    if (src == nullptr) {
        return 0;
    }
    const size_t length = srclen < 0 ? strlen(src) : static_cast<size_t>(srclen);
    const std::string_view text = _trim({src, length});
    if (text.size() % kGroupCharacters != 0) {
        return -1;
    }
    auto *out = static_cast<uint8_t *>(dst);
    auto room = static_cast<size_t>(dstlen);
    for (size_t at = 0; at < text.size(); at += kGroupCharacters) {
        const Group group = _decode_group(text.data() + at);
        const size_t count = group.count < room ? group.count : room;
        memcpy(out, group.bytes.data(), count);
        out += count;
        room -= count;
        if (!group.valid || count < group.count) {
            return -1;
        }
        if (group.last) {
            break;
        }
    }
    return static_cast<int32_t>(out - static_cast<uint8_t *>(dst));
}

int64_t b64_decodedSize(const char *src) {
    if (src == nullptr) {
        return 0;
    }
    const std::string_view text = _trim(src);
    size_t bytes = 0;
    for (size_t at = 0; at + kGroupCharacters <= text.size(); at += kGroupCharacters) {
        if (text[at + 3] == kPadding) {
            return static_cast<int64_t>(bytes + (text[at + 2] == kPadding ? 1 : 2));
        }
        bytes += kGroupBytes;
    }
    return static_cast<int64_t>(bytes);
}

int32_t b64_encode(char *dst, int32_t dstlen, const void *src, int32_t srclen) {
    CLOUD_ASSERT(dst != nullptr && dstlen > 0 && srclen >= 0,
                 "dst != ((void *)0) && dstlen > 0 && srclen >= 0");
    if (src == nullptr) {
        return 0;
    }
    const auto length = static_cast<size_t>(srclen);
    const size_t groups = (length + kGroupBytes - 1) / kGroupBytes;
    if (static_cast<size_t>(dstlen) < groups * kGroupCharacters + 1) {
        return -1;
    }
    const auto *bytes = static_cast<const uint8_t *>(src);
    for (size_t group = 0; group < groups; ++group) {
        const size_t at = group * kGroupBytes;
        const size_t rest = length - at;
        _encode_group(dst + group * kGroupCharacters, bytes + at, rest < kGroupBytes ? rest : kGroupBytes);
    }
    dst[groups * kGroupCharacters] = '\0';
    return static_cast<int32_t>(groups * kGroupCharacters);
}
