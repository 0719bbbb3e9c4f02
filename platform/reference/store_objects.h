// The objects of the reference store: which ids address which record, and how long it is.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wrapper.h"

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
    {"login", WRP_LOGIN_BYTES, WRP_LOGIN_WRITE, WRP_LOGIN_READ},
    {"upgrade-time", WRP_UPGRADE_TIME_BYTES, WRP_UPGRADE_TIME_WRITE, 0x120004},
    {"device-status", WRP_DEVICE_STATUS_BYTES, WRP_DEVICE_STATUS_WRITE, WRP_DEVICE_STATUS_READ},
    {"upgrade-info", WRP_UPGRADE_INFO_BYTES, WRP_UPGRADE_INFO_WRITE, WRP_UPGRADE_INFO_READ},
    {"device-info", WRP_DEVICE_INFO_BYTES, WRP_DEVICE_INFO_WRITE, WRP_DEVICE_INFO_READ},
    {"account", WRP_ACCOUNT_BYTES, WRP_ACCOUNT_INSERT, WRP_ACCOUNT_READ},
};

// The account list: a signed 32-bit count, then room for one account that begins with its user name.
inline constexpr const Record &kAccountRecord = kRecords[5];
inline constexpr uint16_t kAccountNameOffset = 4;
inline constexpr uint16_t kAccountNameSize = WRP_USER_NAME_BYTES;
static_assert(kAccountRecord.size == WRP_ACCOUNT_BYTES);
