// The datagram to the management daemon: its layout, its fixed texts, and the three that ask for a kick-off.
// docs/kmpd.md tells the same to somebody who writes the other side; the sockets' paths are in cloud_path.h.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>

/// What stands before the payload. Integers are in the device's byte order; what has no other value is 0.
struct DatagramHead {
    uint32_t reserved0;
    uint32_t reserved1;
    uint32_t length;      ///< kFixedLength and the payload's letters, without its NUL
    uint32_t kind;        ///< a DatagramKind
    char identifier[33];  ///< kDatagramIdentifier with its NUL
    char reserved2[71];
};

/// One datagram: fixed size, sent whole.
struct Datagram {
    DatagramHead head;
    char payload[10240];  ///< text with its NUL, then zeros
};
static_assert(sizeof(Datagram) == 10360 && offsetof(DatagramHead, length) == 8);
static_assert(offsetof(DatagramHead, identifier) == 16 && offsetof(DatagramHead, reserved2) == 49);
inline constexpr size_t kFixedLength = offsetof(Datagram, payload);
static_assert(kFixedLength == 120);

inline constexpr char kDatagramIdentifier[] = "signalbooster425425425425425425m";
static_assert(sizeof kDatagramIdentifier == sizeof DatagramHead::identifier);

enum DatagramKind : uint32_t { kOpening = 0, kWithPayload = 1 };

/// Fills a zeroed head but for its length.
constexpr void datagram_begin(DatagramHead *head, DatagramKind kind) {
    head->kind = kind;
    std::copy(std::begin(kDatagramIdentifier), std::end(kDatagramIdentifier), head->identifier);
}

/// Fills in the length, once the payload is known.
constexpr void datagram_close(DatagramHead *head, size_t payloadLength) {
    head->length = static_cast<uint32_t>(kFixedLength + payloadLength);
}

struct KickoffStep {
    DatagramKind kind;
    const char *payload;  ///< Base64, sent as it is
};
inline constexpr std::array kKickoffSteps{
    KickoffStep{kOpening, ""},
    KickoffStep{kWithPayload, "AQABAA=="},
    KickoffStep{kWithPayload, "AQACAAEABQAACAAAAAAAAAKejGoBAQYAAAAAAA=="},
};

// The last one's head, typed by hand: 40 letters follow it.
using DatagramBytes = std::array<uint8_t, kFixedLength>;
static_assert([] {
    DatagramHead head{};
    datagram_begin(&head, kWithPayload);
    datagram_close(&head, 40);
    return std::bit_cast<DatagramBytes>(head);
}() == (std::endian::native == std::endian::big
            ? DatagramBytes{0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0,   0xA0, 0,   0,   0,   1,
                            's', 'i', 'g', 'n', 'a', 'l', 'b', 'o', 'o', 's', 't', 'e',  'r', '4', '2', '5',
                            '4', '2', '5', '4', '2', '5', '4', '2', '5', '4', '2', '5',  '4', '2', '5', 'm'}
            : DatagramBytes{0,   0,   0,   0,   0,   0,   0,   0,   0xA0, 0,   0,   0,
                            1,   0,   0,   0,   's', 'i', 'g', 'n', 'a',  'l', 'b', 'o',
                            'o', 's', 't', 'e', 'r', '4', '2', '5', '4',  '2', '5', '4',
                            '2', '5', '4', '2', '5', '4', '2', '5', '4',  '2', '5', 'm'}));
