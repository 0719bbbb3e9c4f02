// The configuration store as its caller sees it: the records, and groups of entries through a probe.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "probe.h"

namespace emulator::check {

struct Record {
    const char *name;
    uint32_t write_id;
    uint32_t read_id;  ///< 0: none
    size_t size;
};
inline constexpr std::array kRecords{
    Record{"login", 0x120001, 0x120002, 130},       Record{"upgrade-time", 0x120003, 0, 8},
    Record{"device-status", 0x120007, 0x120008, 2}, Record{"upgrade-info", 0x120009, 0x12000a, 2648},
    Record{"device-info", 0x12000b, 0x12000c, 66},  Record{"account", 0x12000d, 0x12000f, 648},
};
inline constexpr const Record &kLogin = kRecords[0];
inline constexpr const Record &kTime = kRecords[1];
inline constexpr const Record &kStatus = kRecords[2];
inline constexpr const Record &kUpgrade = kRecords[3];
inline constexpr const Record &kAccount = kRecords[5];
inline constexpr uint32_t kRemoveAccount = 0x12000e;
inline constexpr uint32_t kDeleteAccounts = 0x120010;
inline constexpr size_t kCountSize = 4;  // in front of the account
inline constexpr int kWrite = 0;
inline constexpr int kRead = 1;
inline constexpr size_t kEntryWords = 5;

/// An entry as it goes to the probe. The lengths are those of the buffers, unless changed.
struct Entry {
    uint32_t id = 0;
    std::optional<std::string> in;
    size_t in_length = 0;
    std::optional<size_t> room;
    size_t out_length = 0;
};

/// The entry that writes a record, and the one that reads it.
[[nodiscard]] Entry put_entry(const Record &record, const std::string &bytes);
[[nodiscard]] Entry get_entry(const Record &record);

/// Bytes that the record may hold, without a short period; an account's name and password are letters.
[[nodiscard]] std::string record_bytes(const Record &record, unsigned seed);
[[nodiscard]] std::string account_record(const std::string &name, const std::string &password);

/// Compares byte for byte; what stands in `got` beyond `expected` does not count.
/// @throws Failed  naming the offset at which they differ.
void same_bytes(const std::string &got, const std::string &expected, const std::string &what);

struct Answer {
    int result = 0;
    std::vector<std::string> out;  ///< of each entry
};

class Store {
public:
    explicit Store(const Platform &platform) : probe_(platform, Library::kWrapper) {}

    /// Has a group done.
    /// @param bytes  the length that is told, where it is not the right one.
    /// @param null   a null pointer in place of the entries.
    /// @throws Failed  an input was changed, or something written behind an output; see Probe::ask as well.
    Answer group(const std::vector<Entry> &entries, int direction, std::optional<int> bytes = std::nullopt,
                 bool null = false);
    [[nodiscard]] int write(const std::vector<Entry> &entries) { return group(entries, kWrite).result; }
    /// Writes or reads one record. @throws Failed  the store refuses.
    void put(const Record &record, const std::string &bytes);
    std::string get(const Record &record);
    /// The count of an account record, in the processor's byte order; -1 for one that is neither 0 nor 1.
    [[nodiscard]] int count_of(const std::string &account) const;
    [[nodiscard]] Probe &probe() { return probe_; }

private:
    Probe probe_;
};

}  // namespace emulator::check
