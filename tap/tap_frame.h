// What goes one way on a connection, as messages for the journal. The bytes have been handed on before. After
// bytes that are no message it looks for none any more, as the receiver cannot either. For one thread.
#pragma once

#include <string_view>

#include "cloud_owner.h"
#include "cloud_wire.h"
#include "tap_journal.h"

/// Whose bytes they are, for the records.
struct TapOrigin {
    unsigned connection;
    std::string_view from;  // "client" or "broker"
};

class TapFrame {
public:
    TapFrame() = default;
    TapFrame(const TapFrame &) = delete;
    TapFrame &operator=(const TapFrame &) = delete;
    ~TapFrame() { _forget_body(); }

    /// Takes the next bytes, of any number; writes each message that they complete.
    void take(const TapOrigin &origin, std::string_view bytes, TapJournal *journal);

    /// No more will come: what was begun is no message.
    void end(const TapOrigin &origin, TapJournal *journal);

private:
    void _take_header(const TapOrigin &origin, std::string_view *bytes, TapJournal *journal);
    void _take_body(std::string_view *bytes);
    void _write_message(const TapOrigin &origin, TapJournal *journal);
    void _forget_body();

    FrameHeader header_{};
    size_t headerSize_ = 0;  // bytes of it that are here
    HeapText body_;
    size_t room_ = 0;  // of the body: what is kept at most,
    size_t kept_ = 0;  // what is kept,
    size_t seen_ = 0;  // and what has passed
    bool foreign_ = false;
};
