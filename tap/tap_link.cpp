#include "tap_link.h"

#include <sys/socket.h>

#include <cerrno>

namespace {

constexpr int kTurns = 16;  // pieces a way at a time, so that no link keeps the others waiting
constexpr std::array<std::string_view, TapLink::kSides> kSideNames{"client", "broker"};

}  // namespace

TapOrigin TapLink::_origin(size_t side) const {
    return {number_, side == 0 ? kSideNames[0] : kSideNames[1]};
}

void TapLink::watch(std::span<pollfd, kSides> watched) const {
    for (size_t side = 0; side < kSides; ++side) {
        const Way &from = ways_[side];
        const Way &to = ways_[1 - side];
        const bool reads = !from.ended && from.begin == from.end;
        const bool writes = to.begin < to.end;
        watched[side].events = static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0));
        // A hang-up is reported again and again: once is enough where nothing else is waited for.
        watched[side].fd = hungUp_[side] && watched[side].events == 0 ? -1 : fds_[side].get();
    }
}

// Hands on what is in the buffer. @return whether all of it is gone.
bool TapLink::_send(size_t side) {
    Way &way = ways_[side];
    while (way.begin < way.end) {
        const ssize_t size = send(fds_[1 - side].get(), &way.buffer[way.begin], way.end - way.begin,
                                  MSG_NOSIGNAL | MSG_DONTWAIT);
        if (size < 0 && errno == EAGAIN) {
            return false;
        }
        if (size < 0 &&
            errno != EINTR) {  // the other side does not read any more: the sender's sends fail then
            way.begin = way.end = 0;
            way.ended = true;
            shutdown(fds_[side].get(), SHUT_RD);
            return false;
        }
        way.begin += size > 0 ? static_cast<size_t>(size) : 0;
    }
    return true;
}

void TapLink::_end(size_t side, TapJournal *journal) {
    ways_[side].ended = true;
    ways_[side].frame.end(_origin(side), journal);
    firstEnd_ = firstEnd_ < 0 ? static_cast<int>(side) : firstEnd_;
    shutdown(fds_[1 - side].get(), SHUT_WR);
}

void TapLink::_move(size_t side, TapJournal *journal) {
    Way &way = ways_[side];
    for (int turn = 0; turn < kTurns && _send(side) && !way.ended; ++turn) {
        const ssize_t size = recv(fds_[side].get(), way.buffer.data(), way.buffer.size(), MSG_DONTWAIT);
        if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        if (size <= 0) {
            _end(side, journal);
            return;
        }
        way.begin = 0;
        way.end = static_cast<size_t>(size);
        static_cast<void>(_send(side));
        way.frame.take(_origin(side), {way.buffer.data(), static_cast<size_t>(size)}, journal);
    }
}

bool TapLink::serve(std::span<const pollfd, kSides> watched, TapJournal *journal) {
    for (size_t side = 0; side < kSides; ++side) {
        hungUp_[side] = hungUp_[side] || (watched[side].revents & (POLLHUP | POLLERR)) != 0;
    }
    bool open = false;
    for (size_t side = 0; side < kSides; ++side) {
        _move(side, journal);
        open = open || !ways_[side].ended || ways_[side].begin < ways_[side].end;
    }
    for (size_t side = 0; side < kSides; ++side) {
        // Gone in both directions, and all that it sent has been handed on.
        open = open && !(hungUp_[side] && ways_[side].ended && ways_[side].begin == ways_[side].end);
    }
    return open;
}

void TapLink::write_end(TapJournal *journal) {
    for (size_t side = 0; side < kSides; ++side) {
        ways_[side].frame.end(_origin(side), journal);
    }
    journal->begin("close");
    journal->number("connection", number_);
    if (firstEnd_ >= 0) {
        journal->text("from", _origin(static_cast<size_t>(firstEnd_)).from);
    }
    journal->end();
}
