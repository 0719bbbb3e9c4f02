// One end of a connection in the broker's wire format. It waits ten seconds for the other end, and up to
// twenty for one to connect to.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "descriptor.h"
#include "journal.h"

namespace emulator::check {

struct Frame {
    int type = 0;
    std::string body;
    /// A member of the body; null where there is none or the body is no JSON.
    [[nodiscard]] json member(const char *name) const;
};

class Peer {
public:
    explicit Peer(Descriptor fd) : fd_(std::move(fd)) {}

    /// Connects to a socket, and waits until there is one.
    /// @param ended  says why nobody will come any more; "": wait on. @throws Failed  nobody listens in time.
    [[nodiscard]] static Peer to(const std::string &path, const std::function<std::string()> &ended);
    /// Waits for the next client of a listening socket. @throws Failed  none comes in time.
    [[nodiscard]] static Peer of(const Descriptor &listening);

    void send(int type, std::string_view body) const;
    /// Sends bytes as they are. That the peer is gone shows at the next receive().
    void send_bytes(std::string_view bytes) const;

    /// Sends so many bytes at a time, the next ones when the peer has taken those before.
    /// @throws Failed  it does not take them while the rest is missing.
    void send_pieces(std::string_view bytes, size_t size) const;

    /// The next message. @throws Failed  none comes, the connection ends, or it is no message.
    [[nodiscard]] Frame receive();
    /// The next message, or none when the peer closes or nothing comes for so long.
    /// @throws Failed  it is no whole message.
    [[nodiscard]] std::optional<Frame> maybe(int patienceMs);
    /// Sends a message, then receive().
    [[nodiscard]] Frame ask(int type, std::string_view body);

    /// Waits until the peer closes, whatever it sends before. @return false when it does not.
    [[nodiscard]] bool closes();
    /// Sends nothing more, and waits until the peer closes (ten seconds without a byte at most).
    void finish();

private:
    [[nodiscard]] std::string _bytes(size_t size, const char *what);

    Descriptor fd_;
};

}  // namespace emulator::check
