// The tap's journal: one JSON object a line, in the form that the emulated device writes
// (docs/emulator.md), to a descriptor whose reader may be slow or gone. A record never waits: it is queued
// whole, and what finds no room is counted and told by a record of kind "lost" as soon as there is room
// again. For one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string_view>

#include "cloud_owner.h"

class TapJournal {
public:
    /// @param fd     gets the lines; stays the caller's.
    /// @param limit  bytes after which the journal is full; 0: none.
    TapJournal(int fd, uint64_t limit);

    /// Whether there was memory for the queue; without it nothing else may be called.
    [[nodiscard]] bool ok() const { return queue_ != nullptr; }

    // A record: begin, its members, end.
    void begin(std::string_view kind);
    void number(std::string_view name, uint64_t value);
    /// Bytes that are no UTF-8 show as U+FFFD.
    void text(std::string_view name, std::string_view bytes);
    /// "body", and "body_hex" where the bytes are no UTF-8.
    void body(std::string_view bytes);
    /// Hexadecimal; the second piece follows the first.
    void hex(std::string_view name, std::string_view bytes, std::string_view more = {});
    void end();

    /// Writes what the descriptor takes without waiting.
    /// @return false: the journal has ended, errno tells why; 0 when it is full.
    [[nodiscard]] bool flush();

    /// The same, but waits for a slow reader, up to so long in all.
    void drain(unsigned seconds);

    /// Whether lines wait for the descriptor.
    [[nodiscard]] bool waiting() const { return written_ < whole_; }

private:
    void _open(std::string_view kind);
    bool _close();
    void _put(std::string_view text);
    void _name(std::string_view name);

    const int fd_;
    const uint64_t limit_;
    const timespec start_;
    HeapText queue_;
    size_t written_ = 0;  // of the queue: up to here it is out,
    size_t whole_ = 0;    // up to here are whole lines,
    size_t end_ = 0;      // and up to here goes the record in progress
    bool overflow_ = false;
    bool full_ = false;
    uint64_t total_ = 0;  // bytes of all lines taken
    unsigned seq_ = 0;
    uint64_t lost_ = 0;
};
