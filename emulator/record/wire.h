// The broker's wire format, written apart from the device's: magic:2 type:2 length:4, all
// big-endian, then the body. And the UNIX sockets that the neighbours listen on.
#pragma once

#include <sys/un.h>

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

[[nodiscard]] std::string from_hex(const std::string &hex);
[[nodiscard]] std::string to_hex(std::string_view bytes);

/// Fills the buffer. @return false at an end before that: the buffer then has what came.
[[nodiscard]] bool read_all(int fd, std::string &buffer);

/// Writes to a socket; a peer that is gone is left to the next read.
void write_all(int fd, std::string_view bytes);

[[nodiscard]] sockaddr_un socket_address(std::string_view path);

/// A close-on-exec socket bound to the path, in place of whatever stands there.
/// @param type  SOCK_STREAM or SOCK_DGRAM, and SOCK_NONBLOCK if wanted.
/// @throws std::system_error
[[nodiscard]] int bound_socket(int type, const std::string &path);

}  // namespace emulator
