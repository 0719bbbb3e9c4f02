// The broker's wire format, written apart from the device's: magic:2 type:2 length:4, all
// big-endian, then the body.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace emulator {

inline constexpr size_t kHeaderSize = 8;
inline constexpr std::string_view kMagic = "\xA1\xB2";

/// Wire types of messages; the answers to type n that have no number of their own use n + 1.
enum MessageType : int {
    kAccept = 16,
    kRegister = 32,
    kHelloAnswer = 34,
    kSubmit = 64,
    kPoll = 66,
    kAnswer = 67,
    kSubmitNoAccount = 68,
    kNotify = 80,
    kLink = 96,
    kLogic = 98,
    kCloudRequest = 112,
    kCloudResponse = 113,
    kAskHello = 128,
    kHello = 129,
};

/// What comes from a client, or is answered as if it did (a new connection).
inline constexpr std::array kFromClient{kAccept, kRegister, kSubmit, kPoll,          kSubmitNoAccount,
                                        kNotify, kLink,     kLogic,  kCloudResponse, kHello};

/// A message with each field as given: magic as bytes, any length announced.
[[nodiscard]] std::string encode_frame(std::string_view magic, int type, size_t length,
                                       std::string_view body);

/// "submit", "submitReply" (type + 1), "unknown", ...
[[nodiscard]] std::string message_name(int type);

/// A big-endian number of any size.
[[nodiscard]] size_t decode_number(std::string_view bytes);

/// @throws std::invalid_argument  two characters are no hexadecimal number. A last single one is passed over.
[[nodiscard]] std::string from_hex(const std::string &hex);
/// Two capital digits a byte.
[[nodiscard]] std::string to_hex(std::string_view bytes);

}  // namespace emulator
