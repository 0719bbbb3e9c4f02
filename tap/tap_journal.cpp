#include "tap_journal.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kQueueRoom = size_t{512} << 10;  // more than the longest record's escapes
constexpr size_t kPiece = 4096;                   // a pipe that takes anything takes so much without waiting
constexpr int32_t kNsPerSecond = 1000000000;
constexpr uint32_t kNsPerUs = 1000;
constexpr int kDrainStepMs = 100;
constexpr std::string_view kHexDigits = "0123456789ABCDEF";

// Apart, without a division of 64 bits, which costs a 32-bit device more flash than all the rest of this.
struct Age {
    uint32_t seconds;
    uint32_t us;
};

[[nodiscard]] timespec _now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

[[nodiscard]] Age _since(const timespec &start) {
    const timespec now = _now();
    const auto ns = static_cast<int32_t>(now.tv_nsec - start.tv_nsec);
    const int32_t borrow = ns < 0 ? 1 : 0;
    return {static_cast<uint32_t>(now.tv_sec - start.tv_sec) - static_cast<uint32_t>(borrow),
            static_cast<uint32_t>(ns + borrow * kNsPerSecond) / kNsPerUs};
}

// Bytes of the UTF-8 character that the text begins with; 0 when it begins with none.
[[nodiscard]] size_t _character(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80) {
        return 1;
    }
    const size_t size = first >= 0xC2 && first < 0xE0   ? 2
                        : (first & 0xF0) == 0xE0        ? 3
                        : first >= 0xF0 && first < 0xF5 ? 4
                                                        : 0;
    if (size == 0 || text.size() < size) {
        return 0;
    }
    for (size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    // Too long a form, a surrogate, or beyond the last character.
    const unsigned char second = byte(1);
    const bool bad = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                     (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
    return bad ? 0 : size;
}

[[nodiscard]] bool _is_utf8(std::string_view text) {
    while (!text.empty()) {
        const size_t size = _character(text);
        if (size == 0) {
            return false;
        }
        text.remove_prefix(size);
    }
    return true;
}

// What stands for a character in a JSON text; empty: it itself.
[[nodiscard]] std::string_view _escape(unsigned char byte, std::array<char, 8> *room) {
    switch (byte) {
        case '"':
            return "\\\"";
        case '\\':
            return "\\\\";
        case '\b':
            return "\\b";
        case '\f':
            return "\\f";
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            break;
    }
    if (byte >= 0x20) {
        return {};
    }
    snprintf(room->data(), room->size(), "\\u%04x", byte);
    return {room->data(), 6};
}

}  // namespace

TapJournal::TapJournal(int fd, uint64_t limit)
    : fd_(fd), limit_(limit), start_(_now()), queue_(static_cast<char *>(malloc(kQueueRoom))) {}

void TapJournal::_put(std::string_view text) {
    if (overflow_ || text.size() > kQueueRoom - end_) {
        overflow_ = true;
        return;
    }
    memcpy(queue_.get() + end_, text.data(), text.size());
    end_ += text.size();
}

void TapJournal::_name(std::string_view name) {
    _put(",\"");
    _put(name);
    _put("\":");
}

void TapJournal::_open(std::string_view kind) {
    if (written_ > 0) {
        memmove(queue_.get(), queue_.get() + written_, whole_ - written_);
        whole_ -= written_;
        written_ = 0;
    }
    end_ = whole_;
    overflow_ = full_;
    const Age age = _since(start_);
    std::array<char, 80> head;
    const int size = snprintf(head.data(), head.size(), R"({"seq":%u,"t":%u.%06u,"kind":")", seq_ + 1,
                              age.seconds, age.us);
    _put({head.data(), static_cast<size_t>(size)});
    _put(kind);
    _put("\"");
}

bool TapJournal::_close() {
    _put("}\n");
    const size_t size = end_ - whole_;
    if (!overflow_ && limit_ != 0 && total_ + size > limit_) {
        full_ = true;
    }
    if (overflow_ || full_) {
        return false;
    }
    whole_ = end_;
    total_ += size;
    ++seq_;
    return true;
}

void TapJournal::begin(std::string_view kind) {
    if (lost_ > 0) {
        _open("lost");
        number("records", lost_);
        lost_ = _close() ? 0 : lost_;
    }
    _open(kind);
}

void TapJournal::end() {
    lost_ += _close() ? 0 : 1;
}

void TapJournal::number(std::string_view name, uint64_t value) {
    std::array<char, 24> digits;
    const int size = snprintf(digits.data(), digits.size(), "%llu", static_cast<unsigned long long>(value));
    _name(name);
    _put({digits.data(), static_cast<size_t>(size)});
}

void TapJournal::text(std::string_view name, std::string_view bytes) {
    _name(name);
    _put("\"");
    std::array<char, 8> room;
    while (!bytes.empty()) {
        const size_t size = _character(bytes);
        const std::string_view escaped = size == 0 ? std::string_view("\xEF\xBF\xBD")
                                                   : _escape(static_cast<unsigned char>(bytes[0]), &room);
        _put(escaped.empty() ? std::string_view(bytes.data(), size) : escaped);
        bytes.remove_prefix(size == 0 ? 1 : size);
    }
    _put("\"");
}

void TapJournal::body(std::string_view bytes) {
    text("body", bytes);
    if (!_is_utf8(bytes)) {
        hex("body_hex", bytes);
    }
}

void TapJournal::hex(std::string_view name, std::string_view bytes, std::string_view more) {
    _name(name);
    _put("\"");
    for (const std::string_view piece : {bytes, more}) {
        for (const char byte : piece) {
            const auto value = static_cast<unsigned char>(byte);
            const std::array digits{kHexDigits[value >> 4U], kHexDigits[value & 15U]};
            _put({digits.data(), digits.size()});
        }
    }
    _put("\"");
}

bool TapJournal::flush() {
    while (waiting()) {
        pollfd sink{fd_, POLLOUT, 0};
        if (poll(&sink, 1, 0) == 0) {
            return true;
        }
        const ssize_t size = write(fd_, queue_.get() + written_, std::min(whole_ - written_, kPiece));
        if (size < 0 && errno != EINTR && errno != EAGAIN) {
            full_ = true;  // nothing more is taken
            written_ = whole_;
            return false;
        }
        written_ += size > 0 ? static_cast<size_t>(size) : 0;
    }
    errno = 0;
    return !full_;
}

void TapJournal::drain(unsigned seconds) {
    const timespec begin = _now();
    while (flush() && waiting() && _since(begin).seconds < seconds) {
        pollfd sink{fd_, POLLOUT, 0};
        static_cast<void>(poll(&sink, 1, kDrainStepMs));
    }
}
