#include "journal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace emulator {

std::string dump(const json &value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string valid_utf8(std::string_view text) {
    return json::parse(dump(json(text)));
}

void Journal::add(std::string_view kind, const json &fields) {
    const std::lock_guard lock(mutex_);
    const auto age = std::chrono::steady_clock::now() - begin_;  // under the lock: "t" never goes back
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(age).count();
    json record{{"seq", ++seq_}, {"t", static_cast<double>(us) / 1e6}, {"kind", kind}};
    record.update(fields);
    const std::string line = dump(record) + '\n';
    if (sink_ != nullptr) {
        const bool written = std::fputs(line.c_str(), sink_) >= 0;
        if (std::fflush(sink_) != 0 || !written) {
            std::fprintf(stderr, "The journal cannot be written: %s\n", std::strerror(errno));
            sink_ = nullptr;
        }
    }
    bytes_ += line.size();
    records_.push_back({std::move(record), line.size()});
    while (records_.size() > kKeptRecords || (records_.size() > 1 && bytes_ > kKeptBytes)) {
        bytes_ -= records_.front().bytes;
        records_.pop_front();
    }
    changed_.notify_all();
}

void Journal::add_scenario_error(const json &fields) {
    std::fprintf(stderr, "scenario_error: %s\n", dump(fields).c_str());
    add("scenario_error", fields);
}

std::vector<json> Journal::select(const Predicate &wanted) const {
    const std::lock_guard lock(mutex_);
    std::vector<json> found;
    for (const Kept &kept : records_) {
        if (wanted(kept.record)) {
            found.push_back(kept.record);
        }
    }
    return found;
}

std::vector<json> Journal::all() const {
    return after(0);
}

std::vector<json> Journal::_after(int seq) const {
    std::vector<json> found;
    const auto newer = static_cast<size_t>(std::max(seq_ - seq, 0));
    for (size_t i = records_.size() - std::min(newer, records_.size()); i < records_.size(); ++i) {
        found.push_back(records_[i].record);
    }
    return found;
}

std::vector<json> Journal::after(int seq) const {
    const std::lock_guard lock(mutex_);
    return _after(seq);
}

std::vector<json> Journal::await_after(int seq, std::chrono::milliseconds time) const {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, time, [&] { return seq_ > seq; });
    return _after(seq);
}

int Journal::last() const {
    const std::lock_guard lock(mutex_);
    return seq_;
}

std::vector<json> Journal::of_kind(std::string_view kind) const {
    return select(has({{"kind", kind}}));
}

std::vector<json> Journal::messages(int type) const {
    return select(has({{"kind", "message"}, {"type", type}}));
}

json Journal::wait_for(const Predicate &wanted, std::chrono::milliseconds watchdog) const {
    const auto deadline = std::chrono::steady_clock::now() + watchdog;
    std::unique_lock lock(mutex_);
    for (int seen = 0;;) {
        for (const json &record : _after(seen)) {
            if (wanted(record)) {
                return record;
            }
        }
        seen = seq_;
        if (!changed_.wait_until(lock, deadline, [&] { return seq_ > seen; })) {
            lock.unlock();
            throw std::runtime_error("what the journal should hold did not happen:\n" + text());
        }
    }
}

std::string Journal::text() const {
    std::string lines;
    for (const json &record : all()) {
        lines += dump(record) + '\n';
    }
    return lines;
}

void Journal::clear() {
    const std::lock_guard lock(mutex_);
    records_.clear();
    bytes_ = 0;
}

Journal::Predicate has(json members) {
    return [members = std::move(members)](const json &record) {
        for (const auto &[name, value] : members.items()) {
            if (!record.contains(name) || record.at(name) != value) {
                return false;
            }
        }
        return true;
    };
}

}  // namespace emulator
