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
    json record{{"seq", ++seq_}, {"kind", kind}};
    record.update(fields);
    if (sink_ != nullptr) {
        const bool written = std::fprintf(sink_, "%s\n", dump(record).c_str()) >= 0;
        if (std::fflush(sink_) != 0 || !written) {
            std::fprintf(stderr, "The journal cannot be written: %s\n", std::strerror(errno));
            sink_ = nullptr;
        }
    }
    records_.push_back(std::move(record));
    changed_.notify_all();
}

void Journal::add_scenario_error(const json &fields) {
    std::fprintf(stderr, "scenario_error: %s\n", dump(fields).c_str());
    add("scenario_error", fields);
}

std::vector<json> Journal::select(const Predicate &wanted) const {
    const std::lock_guard lock(mutex_);
    std::vector<json> found;
    for (const json &record : records_) {
        if (wanted(record)) {
            found.push_back(record);
        }
    }
    return found;
}

std::vector<json> Journal::all() const {
    return select([](const json &) { return true; });
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
    for (size_t next = 0;;) {
        for (next = std::min(next, records_.size()); next < records_.size(); ++next) {
            if (wanted(records_[next])) {
                return records_[next];
            }
        }
        if (changed_.wait_until(lock, deadline) == std::cv_status::timeout && next == records_.size()) {
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
