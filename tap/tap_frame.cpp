#include "tap_frame.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr size_t kLongestBody = size_t{64} << 10;
constexpr size_t kMostKept = size_t{512} << 10;  // of the bodies of all connections that are under way

size_t l_kept = 0;

struct Name {
    Message message;
    std::string_view text;
};

constexpr std::array kNames{
    Name{Message::kAccept, "accept"},
    Name{Message::kRegister, "register"},
    Name{Message::kHelloAnswer, "helloAnswer"},
    Name{Message::kSubmit, "submit"},
    Name{Message::kAsk, "poll"},
    Name{Message::kAnswer, "answer"},
    Name{Message::kSubmitNoAccount, "submitNoAccount"},
    Name{Message::kEvent, "notify"},
    Name{Message::kLinkStatus, "link"},
    Name{Message::kLogicStatus, "logic"},
    Name{Message::kCloudRequest, "cloudRequest"},
    Name{Message::kCloudResponse, "cloudResponse"},
    Name{Message::kHelloAsk, "askHello"},
    Name{Message::kHelloRequest, "hello"},
};

[[nodiscard]] std::string_view _name(uint32_t type) {
    for (const Name &one : kNames) {
        if (static_cast<uint32_t>(one.message) == type) {
            return one.text;
        }
    }
    return {};
}

// A type without a name of its own is the reply to the one before it.
void _write_name(uint32_t type, TapJournal *journal) {
    const std::string_view own = _name(type);
    const std::string_view asked = own.empty() && type > 0 ? _name(type - 1) : std::string_view{};
    constexpr std::string_view kReply = "Reply";
    std::array<char, 32> name;
    if (asked.empty()) {
        journal->text("name", own.empty() ? "unknown" : own);
        return;
    }
    memcpy(name.data(), asked.data(), asked.size());
    memcpy(name.data() + asked.size(), kReply.data(), kReply.size());
    journal->text("name", {name.data(), asked.size() + kReply.size()});
}

void _begin(std::string_view kind, const TapOrigin &origin, TapJournal *journal) {
    journal->begin(kind);
    journal->number("connection", origin.connection);
    journal->text("from", origin.from);
}

void _write_foreign(const TapOrigin &origin, std::string_view bytes, std::string_view more,
                    TapJournal *journal) {
    _begin("bad_message", origin, journal);
    journal->hex("bytes", bytes, more);
    journal->end();
}

}  // namespace

void TapFrame::_forget_body() {
    body_.reset();
    l_kept -= room_;
    room_ = kept_ = seen_ = headerSize_ = 0;
}

void TapFrame::_take_header(const TapOrigin &origin, std::string_view *bytes, TapJournal *journal) {
    const size_t size = std::min(bytes->size(), header_.size() - headerSize_);
    memcpy(header_.data() + headerSize_, bytes->data(), size);
    headerSize_ += size;
    bytes->remove_prefix(size);
    if (headerSize_ < header_.size()) {
        return;
    }
    if (frame_magic(header_) != kFrameMagic) {
        foreign_ = true;
        _write_foreign(origin, {reinterpret_cast<const char *>(header_.data()), header_.size()}, {}, journal);
        return;
    }
    const auto wanted = std::min<size_t>({frame_length(header_), kLongestBody, kMostKept - l_kept});
    body_.reset(wanted > 0 ? static_cast<char *>(malloc(wanted)) : nullptr);
    room_ = body_ != nullptr ? wanted : 0;
    l_kept += room_;
}

void TapFrame::_take_body(std::string_view *bytes) {
    const size_t size = std::min<size_t>(bytes->size(), frame_length(header_) - seen_);
    const size_t kept = std::min(size, room_ - kept_);
    if (kept > 0) {
        memcpy(body_.get() + kept_, bytes->data(), kept);
    }
    kept_ += kept;
    seen_ += size;
    bytes->remove_prefix(size);
}

void TapFrame::_write_message(const TapOrigin &origin, TapJournal *journal) {
    const uint32_t type = frame_type(header_);
    _begin("message", origin, journal);
    journal->number("type", type);
    _write_name(type, journal);
    journal->body({body_.get(), kept_});
    if (kept_ < seen_) {
        journal->number("cut_from", seen_);
    }
    journal->end();
}

void TapFrame::take(const TapOrigin &origin, std::string_view bytes, TapJournal *journal) {
    while (!bytes.empty() && !foreign_) {
        if (headerSize_ < header_.size()) {
            _take_header(origin, &bytes, journal);
        } else {
            _take_body(&bytes);
        }
        if (!foreign_ && headerSize_ == header_.size() && seen_ == frame_length(header_)) {
            _write_message(origin, journal);
            _forget_body();
        }
    }
    if (!bytes.empty()) {
        _write_foreign(origin, bytes, {}, journal);
    }
}

void TapFrame::end(const TapOrigin &origin, TapJournal *journal) {
    if (headerSize_ > 0 && !foreign_) {
        _write_foreign(origin, {reinterpret_cast<const char *>(header_.data()), headerSize_},
                       {body_.get(), kept_}, journal);
    }
    _forget_body();
}
