#include "cloud_userConfig.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "cloud_deviceInfo.h"
#include "cloud_owner.h"
#include "cloud_path.h"
#include "cloud_replaceFile.h"
#include "cloud_util.h"
#include "kxcc.h"
#include "wrapper.h"

namespace {

// The store reads entries as it finds them: on the device this is its 20-byte format.
static_assert(sizeof(WrpOpEntry) == 5 * sizeof(uintptr_t) && sizeof(uintptr_t) == sizeof(void *));
static_assert(offsetof(WrpOpEntry, outputLength) == 4 * sizeof(uintptr_t));

constexpr uint8_t kKindWithFixedType = 3;
constexpr uint8_t kFixedFwType = 3;

// Types of transaction messages.
constexpr uint32_t kTransactionBegin = 257;
constexpr uint32_t kTransactionCommit = 258;
constexpr uint32_t kTransactionWithdraw = 259;
constexpr uint32_t kRequestPayloadLength = 4;

template <class Record>
[[nodiscard]] WrpOpEntry _write_entry(WrpObject object, Record *record) {
    return {object, reinterpret_cast<uintptr_t>(record), sizeof(Record), 0, 0};
}

template <class Record>
[[nodiscard]] WrpOpEntry _read_entry(WrpObject object, Record *record) {
    return {object, 0, 0, reinterpret_cast<uintptr_t>(record), sizeof(Record)};
}

template <class Record>
[[nodiscard]] bool _read_record(WrpObject object, Record *record) {
    memset(record, 0, sizeof(Record));
    WrpOpEntry entry = _read_entry(object, record);
    return wrpOpGrpDo(&entry, static_cast<int>(sizeof entry), WRP_READ) == 0;
}

// Both return 1; 0 on a failure.
template <class Record>
int _set_record(WrpObject object, Record *record) {
    if (record == nullptr) {
        return 0;
    }
    WrpOpEntry entry = _write_entry(object, record);
    if (wrpOpGrpDo(&entry, static_cast<int>(sizeof entry), WRP_WRITE) != 0) {
        CLOUD_LOG("wrpOpGrpDo fail.\n");
        return 0;
    }
    return 1;
}

template <class Record>
int _get_record(WrpObject object, Record *record) {
    if (record == nullptr) {
        return 0;
    }
    if (!_read_record(object, record)) {
        CLOUD_LOG("wrpOpGrpDo fail.\n");
        return 0;
    }
    return 1;
}

// A text of the store may fill its field without a terminator.
template <size_t kSize>
void _terminate(char (&text)[kSize]) {
    text[kSize - 1] = '\0';
}

[[nodiscard]] bool _write_firmware(FwUpInfo *info, UpgradeTime *time) {
    std::array group{_write_entry(WRP_UPGRADE_INFO_WRITE, info), _write_entry(WRP_UPGRADE_TIME_WRITE, time)};
    return wrpOpGrpDo(group.data(), static_cast<int>(sizeof group), WRP_WRITE) == 0;
}

template <size_t kSize>
void _copy_field(char (&field)[kSize], const char *text) {
    if (text != nullptr) {
        cstr_strncpy(field, text, kSize);
    }
}

// Contract: cut to 8 bits, so that "300" is 44.
[[nodiscard]] uint8_t _number(const char *text) {
    return text == nullptr ? uint8_t{0} : static_cast<uint8_t>(strtol(text, nullptr, 10));
}

template <size_t kSize>
[[nodiscard]] bool _copy_identifier(const cJSON *tree, const char *key, char (&field)[kSize]) {
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(tree, key);
    if (!cJSON_IsString(item)) {
        return false;
    }
    cstr_strncpy(field, item->valuestring, kSize);
    return true;
}

void _copy_identifiers(const cJSON *tree, CheckInfo *info) {
    if (_copy_identifier(tree, "firmware_id", info->fw_id)) {
        CLOUD_LOG("get info->fw_id value:%s\n", info->fw_id);
    }
    if (_copy_identifier(tree, "hardware_id", info->hw_id)) {
        CLOUD_LOG("get info->hw_id value:%s\n", info->hw_id);
    }
    if (_copy_identifier(tree, "oem_id", info->oem_id)) {
        CLOUD_LOG("get info->oem_id value:%s\n", info->oem_id);
    }
    if (_copy_identifier(tree, "devid", info->dev_id)) {
        CLOUD_LOG("get info->dev_id value:%s\n", info->dev_id);
    }
}

[[nodiscard]] int _get_software_version(CheckInfo *info) {
    const UniqueFd file = cloud_openSource(kSoftInfoPath, O_RDWR);
    if (!file.ok()) {
        CLOUD_LOG("open %s file failed\n", kSoftInfoPath);
        return -1;
    }
    std::array<char, sizeof(info->sw_version)> text{};
    if (read(file.get(), text.data(), text.size() - 1) < 0) {
        CLOUD_LOG("read %s file failed\n", kSoftInfoPath);
        return -1;
    }
    cstr_strncpy(info->sw_version, text.data(), sizeof info->sw_version);
    CLOUD_LOG("get info->sw_version:%s\n", info->sw_version);
    return 0;
}

[[nodiscard]] int _get_device_info(CheckInfo *info) {
    JsonTree tree;
    // Contract: both files are opened for writing as well, although they are only read.
    switch (cloud_loadDeviceInfo(O_RDWR, kDeviceInfoMax, &tree)) {
        case DeviceInfoError::kMemory:
            CLOUD_LOG("Malloc fail.\n");
            return -1;
        case DeviceInfoError::kOpen:
            CLOUD_LOG("open %s file failed\n", kDeviceInfoPath);
            return -1;
        case DeviceInfoError::kRead:
            CLOUD_LOG("read %s file failed\n", kDeviceInfoPath);
            return -1;
        case DeviceInfoError::kParse:
            CLOUD_LOG("str to json failed");
            return -1;
        case DeviceInfoError::kNone:
            break;
    }
    _copy_identifiers(tree.get(), info);
    return _get_software_version(info);
}

// A request with no value of its own.
int _init_request(UcmMessage *msg, uint32_t type) {
    msg->type = type;
    msg->payloadLength = kRequestPayloadLength;
    return 0;
}

int _get_payload_word(const UcmMessage *msg, uint32_t *out) {
    *out = msg->payloadLength < sizeof *out ? 0 : msg->payload;
    return 0;
}

}  // namespace

int cloud_setLoginInfo(LoginInfo *info) {
    return _set_record(WRP_LOGIN_WRITE, info);
}

int cloud_getLoginInfo(LoginInfo *info) {
    const int result = _get_record(WRP_LOGIN_READ, info);
    if (info != nullptr) {
        _terminate(info->userName);
    }
    return result;
}

void cloud_setDeviceStatus(DeviceStatus *status) {
    _set_record(WRP_DEVICE_STATUS_WRITE, status);
}

void cloud_getDeviceStatus(DeviceStatus *status) {
    _get_record(WRP_DEVICE_STATUS_READ, status);
}

void cloud_setDeviceInfo(DeviceInfo *info) {
    _set_record(WRP_DEVICE_INFO_WRITE, info);
}

void cloud_getDeviceInfo(DeviceInfo *info) {
    _get_record(WRP_DEVICE_INFO_READ, info);
    if (info != nullptr) {
        _terminate(info->alias);
    }
}

void cloud_insertAccount(AccountList *list) {
    _set_record(WRP_ACCOUNT_INSERT, list);
}

void cloud_removeAccount(AccountList *list) {
    _set_record(WRP_ACCOUNT_REMOVE, list);
}

void cloud_getAccount(AccountList *list) {
    _get_record(WRP_ACCOUNT_READ, list);
    if (list != nullptr) {
        _terminate(list->userName);
        _terminate(list->password);
    }
}

void cloud_delallAccount() {
    WrpOpEntry entry{WRP_ACCOUNT_DELETE_ALL, 0, 0, 0, 0};
    if (wrpOpGrpDo(&entry, static_cast<int>(sizeof entry), WRP_WRITE) != 0) {
        CLOUD_LOG("wrpOpGrpDo fail.\n");
    }
}

int cloud_getNewFwInfo(UpgradeInfo *info) {
    FwUpInfo record;
    if (info == nullptr || !_read_record(WRP_UPGRADE_INFO_READ, &record)) {
        CLOUD_LOG("cloud wrpOpGrpDo fail.\n");
        return 0;
    }
    cstr_strncpy(info->url, record.url, sizeof info->url);
    CLOUD_LOG("fwUpInfo->url : %s", info->url);
    return 1;
}

int cloud_setNewFwInfo(const char *const *fwFields) {
    DeviceInfo device;
    if (fwFields == nullptr || !_read_record(WRP_DEVICE_INFO_READ, &device)) {
        CLOUD_LOG("wrpOpGrpDo fail.\n");
        return 0;
    }
    FwUpInfo record{};
    record.location = _number(fwFields[kFwLocation]);
    record.type = device.kind == kKindWithFixedType ? kFixedFwType : _number(fwFields[kFwType]);
    _copy_field(record.version, fwFields[kFwVer]);
    _copy_field(record.releaseDate, fwFields[kFwReleaseDate]);
    _copy_field(record.url, fwFields[kFwUrl]);
    _copy_field(record.releaseLog, fwFields[kFwReleaseLog]);
    _copy_field(record.releaseLogUrl, fwFields[kFwReleaseLogUrl]);
    UpgradeTime stored{static_cast<uint32_t>(time(nullptr)), 1};
    if (!_write_firmware(&record, &stored)) {
        CLOUD_LOG("wrpOpGrpDo fail.\n");
        return 0;
    }
    CLOUD_LOG("cloud_setNewFwInfo done.\n");
    return 1;
}

int cloud_setOldFwInfo() {
    return 1;
}

void cloud_clearFwUpInfo() {
    FwUpInfo record{};
    UpgradeTime cleared{};
    if (!_write_firmware(&record, &cleared)) {
        CLOUD_LOG("wrpOpGrpDo fail.\n");
    }
}

int cloud_getCheckFwVerInfo(CheckInfo *info) {
    return _get_device_info(info) == 0 ? 1 : 0;
}

int ucm_ui_req_msg_size() {
    return static_cast<int>(sizeof(UcmMessage));
}

int ucm_ui_req_trans_begin(UcmMessage *msg, uint32_t arg) {
    msg->argument = arg;
    return _init_request(msg, kTransactionBegin);
}

int ucm_ui_req_trans_commit(UcmMessage *msg, uint32_t transId) {
    msg->payload = transId;
    return _init_request(msg, kTransactionCommit);
}

int ucm_ui_req_trans_withdraw(UcmMessage *msg, uint32_t transId) {
    msg->payload = transId;
    return _init_request(msg, kTransactionWithdraw);
}

int ucm_ui_req_type_513(UcmMessage *msg) {
    return _init_request(msg, 513);
}
int ucm_ui_req_type_514(UcmMessage *msg) {
    return _init_request(msg, 514);
}
int ucm_ui_req_type_515(UcmMessage *msg) {
    return _init_request(msg, 515);
}
int ucm_ui_req_type_516(UcmMessage *msg) {
    return _init_request(msg, 516);
}
int ucm_ui_req_type_517(UcmMessage *msg) {
    return _init_request(msg, 517);
}

int ucm_ui_resp_check_result(const UcmMessage *msg, uint32_t len) {
    if (msg == nullptr || len == 0) {
        const auto address = static_cast<unsigned>(reinterpret_cast<uintptr_t>(msg));
        printf("[ERROR][%s():%d]: invalid msg(addr=%08x, len=%d)\n\r", __func__, __LINE__, address,
               static_cast<int>(len));
        return KXCC_ERROR_GENERAL;
    }
    // The payload length is part of the header: a shorter message must not be asked for it.
    const uint64_t expected =
        len < kUcmHeaderSize ? kUcmHeaderSize : kUcmHeaderSize + uint64_t{msg->payloadLength};
    if (len < expected) {
        printf("[ERROR][%s():%d]: invalid msg(recv=%u, should_be=%u)\n\r", __func__, __LINE__, len,
               static_cast<unsigned>(expected));
        return KXCC_ERROR_GENERAL;
    }
    return msg->result == 0 ? 0 : KXCC_ERROR_GENERAL;
}

int ucm_ui_resp_get_transId(const UcmMessage *msg, uint32_t *out) {
    return _get_payload_word(msg, out);
}
int ucm_ui_resp_get_u32(const UcmMessage *msg, uint32_t *out) {
    return _get_payload_word(msg, out);
}
int ucm_ui_resp_get_u32_2(const UcmMessage *msg, uint32_t *out) {
    return _get_payload_word(msg, out);
}

int ucm_ui_resp_get_str(const UcmMessage *msg, char *dst, size_t size) {
    const char *payload = reinterpret_cast<const char *>(msg) + kUcmHeaderSize;
    const size_t bound = msg->payloadLength < size ? msg->payloadLength : size;
    snprintf(dst, size, "%.*s", static_cast<int>(bound), payload);
    return 0;
}
