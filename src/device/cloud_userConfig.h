// Access to the device's configuration store, and the identity files of the device.
//
// Records are fixed layouts in the device's byte order; texts in them are NUL-padded. A failed store
// operation is logged here; a read that failed leaves zeros.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wrapper.h"

// Records of the store ------------------------------------------------------------------------------

/// Firmware that the cloud offers.
struct FwUpInfo {
    uint8_t location;
    uint8_t type;
    char releaseDate[17];
    char reserved[257];  // not this program's; zero
    char version[65];
    char releaseLog[1025];
    char releaseLogUrl[257];
    char url[1025];
};
static_assert(sizeof(FwUpInfo) == WRP_UPGRADE_INFO_BYTES && offsetof(FwUpInfo, releaseDate) == 2);
static_assert(offsetof(FwUpInfo, version) == 276 && offsetof(FwUpInfo, releaseLog) == 341);
static_assert(offsetof(FwUpInfo, releaseLogUrl) == 1366 && offsetof(FwUpInfo, url) == 1623);

/// When firmware information was stored last.
struct UpgradeTime {
    uint32_t seconds;  // UTC since 1970
    uint32_t flag;     // 1 stored, 0 cleared
};
static_assert(sizeof(UpgradeTime) == WRP_UPGRADE_TIME_BYTES);

struct DeviceStatus {
    uint8_t bind_status;  // 1 bound
    uint8_t need_unbind;  // 1 an unbind is still owed to the cloud
};
static_assert(sizeof(DeviceStatus) == WRP_DEVICE_STATUS_BYTES);

struct DeviceInfo {
    uint8_t kind;  // 3: the type of stored firmware is always 3
    char alias[65];
};
static_assert(sizeof(DeviceInfo) == WRP_DEVICE_INFO_BYTES);

/// Bytes of an account's name with its terminator.
inline constexpr size_t kUserNameRoom = WRP_USER_NAME_BYTES;

struct LoginInfo {
    uint8_t role;  // as the cloud returned it at the last login; 0 is the owner
    char userName[kUserNameRoom];
};
static_assert(sizeof(LoginInfo) == WRP_LOGIN_BYTES);

/// The account list has room for one entry, whatever `count` says: never read past it.
struct AccountList {
    int32_t count;  // filled by the store on reads, left 0 by writers
    char userName[kUserNameRoom];
    char password[513];  // in the device's encrypted text form
    char reserved[2];
};
static_assert(sizeof(AccountList) == WRP_ACCOUNT_BYTES && offsetof(AccountList, userName) == 4);
static_assert(offsetof(AccountList, password) == 133 && offsetof(AccountList, reserved) == 646);

// In memory only ------------------------------------------------------------------------------------

/// What the identity files say of the device. The firmware check sends all but dev_id.
struct CheckInfo {
    char sw_version[128];  // raw, its newline included
    char fw_id[33];
    char hw_id[33];
    char oem_id[33];
    char dev_id[65];
};

/// Bytes of a firmware address in memory with its terminator, one less than the record has.
inline constexpr size_t kFirmwareUrlRoom = 1024;

/// What the download command needs of the stored firmware information.
struct UpgradeInfo {
    char url[kFirmwareUrlRoom];
};

/// Order of the texts given to cloud_setNewFwInfo.
enum FwField {
    kFwType,
    kFwVer,
    kFwReleaseDate,
    kFwUrl,
    kFwReleaseLog,
    kFwReleaseLogUrl,
    kFwLocation,
    kFwFieldCount,
};

// Single records: a null pointer does nothing; a read zeroes the record first and terminates its texts. A
// store failure is logged; of these two it is the result as well.
/// @return 1; 0 for null or on a store failure.
[[nodiscard]] int cloud_setLoginInfo(LoginInfo *info);
/// @return 1; 0 for null or on a store failure.
[[nodiscard]] int cloud_getLoginInfo(LoginInfo *info);
void cloud_setDeviceStatus(DeviceStatus *status);
void cloud_getDeviceStatus(DeviceStatus *status);
void cloud_setDeviceInfo(DeviceInfo *info);
void cloud_getDeviceInfo(DeviceInfo *info);
void cloud_insertAccount(AccountList *list);
void cloud_getAccount(AccountList *list);
void cloud_delallAccount();

/// Reads the address of the stored firmware, kept to 1023 characters (logged).
/// @return 1; 0 for null or on a store failure (logged), and the record is as it was.
[[nodiscard]] int cloud_getNewFwInfo(UpgradeInfo *info);

/// Stores firmware information and the time of it, as one group.
/// @param fwFields  kFwFieldCount texts in the order of FwField, each may be null; longer ones are cut.
/// @return 1; 0 for null or on a store failure (logged).
[[nodiscard]] int cloud_setNewFwInfo(const char *const *fwFields);

/// Contract: called when the list of firmware is empty, and stores nothing. @return 1.
[[nodiscard]] int cloud_setOldFwInfo();

/// Clears the stored firmware information and its time, as one group. A store failure is logged.
void cloud_clearFwUpInfo();

/// Fills a zeroed record with the device's identifiers and software version. Identifiers that are absent
/// or no texts are left out.
/// @return 1; 0 when an identity file cannot be read or parsed (logged); what was read before stays.
[[nodiscard]] int cloud_getCheckFwVerInfo(CheckInfo *info);

// Interface only: no command calls what follows.

void cloud_removeAccount(AccountList *list);  // a single record, as above

// Transaction messages of the store -----------------------------------------------------------------

/// A transaction message: 20 bytes of header, then the payload. Responses may carry more payload than
/// one word: they are read in place, in a buffer of their length.
struct UcmMessage {
    uint32_t type;
    uint32_t result;         // of a response: 0 success
    uint32_t payloadLength;  // bytes
    uint32_t reserved;
    uint32_t argument;  // of a begin request
    uint32_t payload;   // transaction id, or the start of a response's payload
};
inline constexpr size_t kUcmHeaderSize = offsetof(UcmMessage, payload);
static_assert(sizeof(UcmMessage) == 24 && kUcmHeaderSize == 20);

/// Bytes of a request. @return 24.
[[nodiscard]] int ucm_ui_req_msg_size();

// Requests: each sets type and payload length (and its one value) and leaves the rest. All return 0.
[[nodiscard]] int ucm_ui_req_trans_begin(UcmMessage *msg, uint32_t arg);
[[nodiscard]] int ucm_ui_req_trans_commit(UcmMessage *msg, uint32_t transId);
[[nodiscard]] int ucm_ui_req_trans_withdraw(UcmMessage *msg, uint32_t transId);
[[nodiscard]] int ucm_ui_req_type_513(UcmMessage *msg);
[[nodiscard]] int ucm_ui_req_type_514(UcmMessage *msg);
[[nodiscard]] int ucm_ui_req_type_515(UcmMessage *msg);
[[nodiscard]] int ucm_ui_req_type_516(UcmMessage *msg);
[[nodiscard]] int ucm_ui_req_type_517(UcmMessage *msg);

/// Checks a response of `len` bytes.
/// Contract: null, an empty and a short one are reported on standard output, not in the log.
/// @return 0 for a complete response of success; -1000 otherwise.
[[nodiscard]] int ucm_ui_resp_check_result(const UcmMessage *msg, uint32_t len);

// Payload of a checked response; all return 0. A payload shorter than a word reads as 0.
[[nodiscard]] int ucm_ui_resp_get_transId(const UcmMessage *msg, uint32_t *out);
[[nodiscard]] int ucm_ui_resp_get_u32(const UcmMessage *msg, uint32_t *out);
[[nodiscard]] int ucm_ui_resp_get_u32_2(const UcmMessage *msg, uint32_t *out);
/// @param size  bytes of dst, including the terminator; a longer text is cut.
[[nodiscard]] int ucm_ui_resp_get_str(const UcmMessage *msg, char *dst, size_t size);
