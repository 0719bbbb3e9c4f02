// One client's connection and the broker's that stands for it. Bytes go both ways as they come, before they
// are looked at. Each way ends by itself (a half-closed connection stays one). When a peer is gone, the link
// closes. What one side does not take stays with the sender: the tap holds at most one buffer a way. For one
// thread.
#pragma once

#include <poll.h>

#include <array>
#include <span>

#include "cloud_owner.h"
#include "tap_frame.h"
#include "tap_journal.h"

class TapLink {
public:
    static constexpr size_t kSides = 2;  // the client, the broker

    /// @param number  from 1; for the records.
    TapLink(unsigned number, UniqueFd client, UniqueFd broker)
        : number_(number), fds_{std::move(client), std::move(broker)} {}

    /// Fills in what the link waits for.
    void watch(std::span<pollfd, kSides> watched) const;

    /// Does what can be done now, without waiting.
    /// @return false: the link is over.
    [[nodiscard]] bool serve(std::span<const pollfd, kSides> watched, TapJournal *journal);

    /// Writes the end of the connection.
    void write_end(TapJournal *journal);

private:
    struct Way {  // from the side of its index to the other
        std::array<char, 4096> buffer;
        size_t begin = 0;
        size_t end = 0;
        bool ended = false;  // nothing more is read
        TapFrame frame;
    };
    [[nodiscard]] TapOrigin _origin(size_t side) const;
    void _move(size_t side, TapJournal *journal);
    bool _send(size_t side);
    void _end(size_t side, TapJournal *journal);

    const unsigned number_;
    std::array<UniqueFd, kSides> fds_;
    std::array<Way, kSides> ways_;
    std::array<bool, kSides> hungUp_{};
    int firstEnd_ = -1;  // the side that stopped first
};
