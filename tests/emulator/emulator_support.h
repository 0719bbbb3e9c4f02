// What tests of the emulated device share: a foreign client and a broker for it.
#pragma once

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

#include "broker.h"
#include "cloud.h"
#include "descriptor.h"
#include "journal.h"

namespace emulator {

inline constexpr const char *kPath = "/tmp/foreign-brd";

// Raw sockets and bytes typed by hand, so that the broker and cloud_msg cannot share one mistake.
class Client {
public:
    explicit Client(int type = SOCK_STREAM, const char *path = kPath)
        : fd_(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
        const timeval watchdog{kWatchdog.count(), 0};
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &watchdog, sizeof watchdog);
        connected_ = connect(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    [[nodiscard]] bool connected() const { return connected_; }
    void write(const std::string &bytes) const {
        ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    /// So many bytes, or fewer when the broker closed.
    [[nodiscard]] std::string read(size_t size) const {
        std::string bytes(size, '\0');
        const ssize_t got = size == 0 ? 0 : recv(fd_.get(), bytes.data(), size, MSG_WAITALL);
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }
    [[nodiscard]] bool closed() const {
        char byte = 0;
        return recv(fd_.get(), &byte, 1, 0) == 0;
    }
    /// One message: its type, and its body.
    [[nodiscard]] std::pair<int, std::string> message() const {
        const std::string header = read(8);
        const auto byte = [&](size_t i) { return static_cast<unsigned char>(header.at(i)); };
        return {byte(2) * 256 + byte(3), read(static_cast<size_t>(byte(6)) * 256 + byte(7))};
    }
    [[nodiscard]] std::pair<int, std::string> ask(int type, const std::string &body) const {
        const auto low = [](size_t value) { return static_cast<char>(value & 0xFF); };
        write(std::string("\xA1\xB2\0", 3) + low(static_cast<size_t>(type)) + std::string(2, '\0') +
              low(body.size() >> 8U) + low(body.size()) + body);
        return message();
    }

private:
    Descriptor fd_;
    bool connected_ = false;
};

struct Neighbours {
    explicit Neighbours(const json &scenario = json::object()) : broker(journal, cloud, scenario, kPath) {}
    Journal journal;
    Cloud cloud;
    Broker broker;
};

// What the message names as wrong.
inline std::string refusal(const std::function<void()> &make) {
    try {
        make();
    } catch (const std::invalid_argument &error) {
        return error.what();
    }
    return "taken";
}

inline auto holds(json members) {
    return testing::Truly(has(std::move(members)));
}

}  // namespace emulator
