// What happened on the device, as a list of JSON objects in order. Each has "seq" (from 1), "t" (seconds
// since the journal was made, to the microsecond) and "kind"; journal(5) lists the kinds and their members.
// Safe for several threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace emulator {

/// Members keep the order in which they were put in.
using json = nlohmann::ordered_json;

/// Longest wait for something that must happen; a test that reaches it has failed.
inline constexpr std::chrono::seconds kWatchdog{60};

/// What stays in memory of a journal: the latest records, up to both bounds (at least one). A file gets all.
inline constexpr size_t kKeptRecords = 20000;
inline constexpr size_t kKeptBytes = size_t{32} << 20U;

class Journal {
public:
    using Predicate = std::function<bool(const json &)>;

    /// @param sink  open file that gets each record as one line, or null; stays the caller's. When it cannot
    ///     be written, one line on standard error says so, and it gets nothing more.
    explicit Journal(std::FILE *sink = nullptr) : sink_(sink) {}

    /// Appends a record {"seq", "t", "kind", members of fields...}.
    void add(std::string_view kind, const json &fields);

    /// Adds a record of kind "scenario_error", and writes it to standard error as well: what was scripted did
    /// not happen.
    void add_scenario_error(const json &fields);

    // The following see what is in memory.
    [[nodiscard]] std::vector<json> all() const;
    /// Records with a greater "seq".
    [[nodiscard]] std::vector<json> after(int seq) const;
    /// The same; waits until there is one, or the time is over (then none).
    [[nodiscard]] std::vector<json> await_after(int seq, std::chrono::milliseconds time) const;
    /// "seq" of the latest record ever, 0 before the first.
    [[nodiscard]] int last() const;
    [[nodiscard]] std::vector<json> select(const Predicate &wanted) const;
    [[nodiscard]] std::vector<json> of_kind(std::string_view kind) const;

    /// Records of messages of one wire type, of both directions.
    [[nodiscard]] std::vector<json> messages(int type) const;

    /// Returns the first record that fits, waiting for it if need be.
    /// @throws std::runtime_error with the journal's text when the watchdog runs out.
    json wait_for(const Predicate &wanted, std::chrono::milliseconds watchdog = kWatchdog) const;

    /// One JSON object a line. Bytes that are no UTF-8 show as U+FFFD.
    [[nodiscard]] std::string text() const;

    /// Empties the memory; "seq", "t" and the file go on.
    void clear();

private:
    struct Kept {
        json record;
        size_t bytes;
    };
    [[nodiscard]] std::vector<json> _after(int seq) const;

    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::deque<Kept> records_;  // under mutex_; their "seq" go up by one
    size_t bytes_ = 0;          // under mutex_: of all that are kept
    std::FILE *sink_;           // under mutex_
    int seq_ = 0;               // under mutex_
};

/// A predicate: the record has each of these members with these values.
[[nodiscard]] Journal::Predicate has(json members);

/// Text of a record or any other value, safe for bytes that are no UTF-8.
[[nodiscard]] std::string dump(const json &value);

/// The text with U+FFFD in place of bytes that are no UTF-8.
[[nodiscard]] std::string valid_utf8(std::string_view text);

}  // namespace emulator
