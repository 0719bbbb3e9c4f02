// The broker's wire and the library's fixed numbers, in one place: where the broker listens, how a
// frame begins, which messages there are, and how long anything waits.
// docs/protocol.md tells the same to somebody who writes the other side.
#pragma once

#include <kxcc.h>

#include <array>
#include <cstddef>
#include <cstdint>

inline constexpr char kBrokerPath[] = "/tmp/cloud-brd";

/// What a message is about. "to" and "from" are seen from this library.
enum class Message : uint32_t {  // as wide as what cloud_ipc_recv() hands out
    kAccept = 16,                ///< from: greets every new connection
    kRegister = 32,              ///< to: this connection is the device's service
    kHelloAnswer = 34,           ///< from: the cloud's answer to the greeting
    kSubmit = 64,                ///< to: a cloud request, account mode
    kAsk = 66,                   ///< to: is there an answer to this request id?
    kAnswer = 67,                ///< from: what is known of it
    kSubmitNoAccount = 68,       ///< to: a cloud request, no-account mode
    kEvent = 80,                 ///< to: a notification
    kLinkStatus = 96,            ///< to: how is the link to the cloud?
    kLogicStatus = 98,           ///< to: which mode?
    kCloudRequest = 112,         ///< from: a request that the cloud sends to the device
    kCloudResponse = 113,        ///< to: the service's answer to it
    kHelloAsk = 128,             ///< from: give me the device's greeting
    kHelloRequest = 129,         ///< to: the greeting
};

/// A frame's header: magic, type, length of the body; big-endian, no padding.
inline constexpr size_t kFrameHeaderSize = 8;
inline constexpr uint16_t kFrameMagic = 0xA1B2;
using FrameHeader = std::array<uint8_t, kFrameHeaderSize>;

[[nodiscard]] constexpr FrameHeader frame_header(uint16_t type, uint32_t length) {
    return {kFrameMagic >> 8,
            kFrameMagic & 0xFF,
            static_cast<uint8_t>(type >> 8),
            static_cast<uint8_t>(type),
            static_cast<uint8_t>(length >> 24),
            static_cast<uint8_t>(length >> 16),
            static_cast<uint8_t>(length >> 8),
            static_cast<uint8_t>(length)};
}

[[nodiscard]] constexpr uint16_t frame_magic(const FrameHeader &header) {
    return static_cast<uint16_t>(header[0] << 8 | header[1]);
}

[[nodiscard]] constexpr uint16_t frame_type(const FrameHeader &header) {
    return static_cast<uint16_t>(header[2] << 8 | header[3]);
}

[[nodiscard]] constexpr uint32_t frame_length(const FrameHeader &header) {
    return static_cast<uint32_t>(header[4]) << 24 | static_cast<uint32_t>(header[5]) << 16 |
           static_cast<uint32_t>(header[6]) << 8 | static_cast<uint32_t>(header[7]);
}

static_assert(frame_header(66, 0x01020304) == FrameHeader{0xA1, 0xB2, 0x00, 66, 0x01, 0x02, 0x03, 0x04});
static_assert(frame_length(FrameHeader{0xA1, 0xB2, 0x00, 67, 0xFF, 0xFE, 0xFD, 0xFC}) == 0xFFFEFDFC);

/// Room for the short bodies {"id":N}, {"event":N} and {"hellocloud":N}, with their NUL.
inline constexpr size_t kShortBodySize = 40;

inline constexpr int32_t kAcceptFull = 1;    ///< "result" of the accept message: no free place
inline constexpr int kServerBacklog = 512;   ///< connections that wait for a server's accept
inline constexpr int kReceiveWaitMs = 3000;  ///< each wait for more bytes of a message
inline constexpr int kLoopSleepMs = 50;      ///< a background thread's rest in each round
inline constexpr int kLoopWaitMs = 50;       ///< its wait for input in each round
/// Stands for a negative time-out of the caller.
inline constexpr int32_t kDefaultTimeoutMs = KXCC_DEFAULT_TIMEOUT_MS;
/// For the broker's consent to a registration.
inline constexpr int32_t kRegisterWaitMs = KXCC_DEFAULT_TIMEOUT_MS;
/// Between two questions for the same answer.
inline constexpr int kPollIntervalMs = KXCC_POLL_INTERVAL_MS;
inline constexpr int32_t kCallbackSlots = 20;  ///< requests with a callback that can be pending at once

inline constexpr unsigned kUsPerMs = 1000;
