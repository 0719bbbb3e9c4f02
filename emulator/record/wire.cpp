#include "wire.h"

#include <array>

namespace emulator {
namespace {

struct TypeName {
    int type;
    const char *name;
};

constexpr std::array kTypeNames{
    TypeName{kAccept, "accept"},
    TypeName{kRegister, "register"},
    TypeName{kHelloAnswer, "helloAnswer"},
    TypeName{kSubmit, "submit"},
    TypeName{kPoll, "poll"},
    TypeName{kAnswer, "answer"},
    TypeName{kSubmitNoAccount, "submitNoAccount"},
    TypeName{kNotify, "notify"},
    TypeName{kLink, "link"},
    TypeName{kLogic, "logic"},
    TypeName{kCloudRequest, "cloudRequest"},
    TypeName{kCloudResponse, "cloudResponse"},
    TypeName{kAskHello, "askHello"},
    TypeName{kHello, "hello"},
};

std::string _big_endian(size_t value, size_t size) {
    std::string bytes;
    for (size_t i = size; i-- > 0;) {
        bytes += static_cast<char>(value >> 8 * i & 0xFFU);
    }
    return bytes;
}

}  // namespace

std::string encode_frame(std::string_view magic, int type, size_t length, std::string_view body) {
    return std::string(magic) + _big_endian(static_cast<size_t>(type), 2) + _big_endian(length, 4) +
           std::string(body);
}

std::string message_name(int type) {
    for (const int step : {0, 1}) {
        for (const TypeName &known : kTypeNames) {
            if (known.type + step == type) {
                return step == 0 ? known.name : std::string(known.name) + "Reply";
            }
        }
    }
    return "unknown";
}

size_t decode_number(std::string_view bytes) {
    size_t value = 0;
    for (const char byte : bytes) {
        value = value << 8U | static_cast<unsigned char>(byte);
    }
    return value;
}

std::string from_hex(const std::string &hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

std::string to_hex(std::string_view bytes) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string hex;
    for (const char byte : bytes) {
        hex += kDigits[static_cast<unsigned char>(byte) >> 4U];
        hex += kDigits[static_cast<unsigned char>(byte) & 15U];
    }
    return hex;
}

}  // namespace emulator
