// The objects of the reference store: which ids address which record, and how long it is.
#pragma once

#include <cstddef>
#include <cstdint>

/// Results of wrpOpGrpDo, beside 0.
enum StoreResult : int {
    kStoreBadCall = -1,  // refused as it stands: nothing was looked up
    kStoreFailed = -2,   // the file cannot be opened, is damaged, full, or stays busy
};

/// One record, and the ids that replace and read it.
struct Record {
    const char *name;  // the row's key in the file, and the tool's name for it
    uint16_t size;     // bytes
    uint32_t writeId;
    uint32_t readId;
};

// The program has no id to read the upgrade time; 0x120004 is this store's own.
inline constexpr Record kRecords[] = {
    {"login", 130, 0x120001, 0x120002},       {"upgrade-time", 8, 0x120003, 0x120004},
    {"device-status", 2, 0x120007, 0x120008}, {"upgrade-info", 2648, 0x120009, 0x12000a},
    {"device-info", 66, 0x12000b, 0x12000c},  {"account", 648, 0x12000d, 0x12000f},
};

// The account list: a signed 32-bit count, then room for one account that begins with its user name.
inline constexpr const Record &kAccountRecord = kRecords[5];
inline constexpr uint32_t kAccountRemoveId = 0x12000e;
inline constexpr uint32_t kAccountClearId = 0x120010;
inline constexpr size_t kAccountNameOffset = 4;
inline constexpr size_t kAccountNameSize = 129;
static_assert(kAccountRecord.size == 648);
