#include "kmpd.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "unix_socket.h"

namespace emulator {
namespace {

// Layout of a datagram: word 0, word 0, length, kind, identifier, zeros, payload.
constexpr size_t kLengthOffset = 8;
constexpr size_t kKindOffset = 12;
constexpr size_t kIdentifierOffset = 16;
constexpr size_t kPayloadOffset = 120;
constexpr std::string_view kIdentifier = "signalbooster425425425425425425m";

uint32_t _word(std::string_view datagram, size_t offset, bool bigEndian) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) {
        const auto byte = static_cast<unsigned char>(datagram[offset + (bigEndian ? i : 3 - i)]);
        value = value << 8 | byte;
    }
    return value;
}

std::string_view _payload(std::string_view datagram) {
    const std::string_view rest = datagram.substr(kPayloadOffset);
    return rest.substr(0, rest.find('\0'));
}

}  // namespace

std::vector<std::string> check_datagram(std::string_view datagram, bool bigEndian) {
    if (datagram.size() != kDatagramSize) {
        return {"size " + std::to_string(datagram.size())};
    }
    std::vector<std::string> faults;
    const std::string_view payload = _payload(datagram);
    const uint32_t length = _word(datagram, kLengthOffset, bigEndian);
    if (length != kPayloadOffset + payload.size()) {
        faults.push_back("length " + std::to_string(length) + " at offset 8");
    }
    const uint32_t kind = _word(datagram, kKindOffset, bigEndian);
    if (kind != (payload.empty() ? 0U : 1U)) {
        faults.push_back("kind " + std::to_string(kind) + " at offset 12");
    }
    if (datagram.substr(kIdentifierOffset, kIdentifier.size()) != kIdentifier) {
        faults.emplace_back("identifier at offset 16");
    }
    if (payload.size() == kDatagramSize - kPayloadOffset) {
        faults.emplace_back("payload without an end");
    }
    const auto checkZero = [&](size_t begin, size_t end) {
        const size_t found = datagram.substr(0, end).find_first_not_of('\0', begin);
        if (found != std::string_view::npos) {
            faults.push_back("not zero at offset " + std::to_string(found));
        }
    };
    checkZero(0, kLengthOffset);
    checkZero(kIdentifierOffset + kIdentifier.size(), kPayloadOffset);
    checkZero(kPayloadOffset + payload.size(), kDatagramSize);
    return faults;
}

Kmpd::Kmpd(Journal &journal, KmpdReply reply, bool bigEndian, std::string path)
    : journal_(journal),
      reply_(reply),
      big_endian_(bigEndian),
      path_(std::move(path)),
      fd_(bound_socket(SOCK_DGRAM, path_)) {
    thread_ = std::thread([this] { _serve(); });
}

Kmpd::~Kmpd() {
    stopping_ = true;
    shutdown(fd_.get(), SHUT_RDWR);  // ends the wait in recvfrom
    thread_.join();
    unlink(path_.c_str());
}

void Kmpd::_serve() {
    std::vector<char> buffer(kDatagramSize + 1);
    for (;;) {
        sockaddr_un from{};
        socklen_t fromSize = sizeof from;
        const ssize_t size = recvfrom(fd_.get(), buffer.data(), buffer.size(), 0,
                                      reinterpret_cast<sockaddr *>(&from), &fromSize);
        if (size < 0 || stopping_) {
            return;
        }
        const std::string_view datagram(buffer.data(), static_cast<size_t>(size));
        json record{{"size", size}};
        if (datagram.size() >= kPayloadOffset) {
            record["length"] = _word(datagram, kLengthOffset, big_endian_);
            record["message"] = _word(datagram, kKindOffset, big_endian_);
            record["payload"] = _payload(datagram);
        }
        record["faults"] = check_datagram(datagram, big_endian_);
        journal_.add("datagram", record);
        if (reply_ != KmpdReply::kSilent) {
            const std::string answer(reply_ == KmpdReply::kOversize ? 2 * kDatagramSize : kDatagramSize, 'k');
            sendto(fd_.get(), answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                   reinterpret_cast<const sockaddr *>(&from), fromSize);
        }
    }
}

}  // namespace emulator
