#include "peer.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>

#include "check.h"
#include "unix_socket.h"
#include "wire.h"

namespace emulator::check {
namespace {

constexpr int kPatienceMs = 10000;
constexpr std::chrono::milliseconds kBetweenTries{20};
constexpr int kTries = 1000;
constexpr size_t kLongestBody = 16U << 20U;

bool _readable(int fd, int patienceMs) {
    pollfd input{fd, POLLIN, 0};
    return poll(&input, 1, patienceMs) > 0;
}

}  // namespace

json Frame::member(const char *name) const {
    const json parsed = json::parse(valid_utf8(body), nullptr, false);
    return parsed.is_object() && parsed.contains(name) ? parsed.at(name) : json();
}

Peer Peer::to(const std::string &path, const std::function<std::string()> &ended) {
    const sockaddr_un address = socket_address(path);
    for (int i = 0; i < kTries; ++i) {
        Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
            return Peer(std::move(fd));
        }
        const std::string why = ended();
        require(why.empty(), why);
        std::this_thread::sleep_for(kBetweenTries);
    }
    throw Failed("nobody listens at " + path);
}

Peer Peer::of(const Descriptor &listening) {
    require(_readable(listening.get(), kPatienceMs), "it does not connect");
    return Peer(Descriptor(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC)));
}

void Peer::send(int type, std::string_view body) const {
    send_bytes(encode_frame(kMagic, type, body.size(), body));
}

void Peer::send_bytes(std::string_view bytes) const {
    write_all(fd_.get(), bytes);
}

void Peer::send_pieces(std::string_view bytes, size_t size) const {
    for (; !bytes.empty(); bytes.remove_prefix(std::min(size, bytes.size()))) {
        send_bytes(bytes.substr(0, size));
        int waiting = 1;  // bytes that the peer has not taken
        for (int i = 0; waiting != 0 && i < kTries && ioctl(fd_.get(), SIOCOUTQ, &waiting) == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        require(waiting == 0, "a part of a message is not read while the rest is missing");
    }
}

Frame Peer::receive() {
    const std::string header = _bytes(kHeaderSize, "the header of a message");
    require(header.starts_with(kMagic),
            "a message begins with " + to_hex(header.substr(0, 2)) + " instead of A1B2");
    const size_t length = decode_number(header.substr(4));
    require(length <= kLongestBody, "a message announces " + std::to_string(length) + " bytes");
    return {static_cast<int>(decode_number(header.substr(2, 2))), _bytes(length, "the body of a message")};
}

std::optional<Frame> Peer::maybe(int patienceMs) {
    char byte = 0;
    if (!_readable(fd_.get(), patienceMs) || recv(fd_.get(), &byte, 1, MSG_PEEK) <= 0) {
        return std::nullopt;
    }
    return receive();
}

Frame Peer::ask(int type, std::string_view body) {
    send(type, body);
    return receive();
}

bool Peer::closes() {
    std::array<char, 4096> buffer{};
    while (_readable(fd_.get(), kPatienceMs)) {
        if (recv(fd_.get(), buffer.data(), buffer.size(), 0) <= 0) {
            return true;
        }
    }
    return false;
}

void Peer::finish() {
    shutdown(fd_.get(), SHUT_WR);
    static_cast<void>(closes());
}

std::string Peer::_bytes(size_t size, const char *what) {
    std::string bytes(size, '\0');
    for (size_t filled = 0; filled < size;) {
        const std::string soFar =
            " (" + std::to_string(filled) + " of " + std::to_string(size) + " bytes came)";
        require(_readable(fd_.get(), kPatienceMs), std::string(what) + " does not come" + soFar);
        const ssize_t got = recv(fd_.get(), &bytes[filled], size - filled, 0);
        require(got > 0, "the connection ended in place of " + std::string(what) + soFar);
        filled += static_cast<size_t>(got);
    }
    return bytes;
}

}  // namespace emulator::check
