#include "cloud_checkFwVersion.h"

#include <array>
#include <span>
#include <utility>

#include "cloud_api_wrap.h"
#include "cloud_cloudErrorHandler.h"
#include "cloud_downloadFw.h"
#include "cloud_exchangeConfig.h"
#include "cloud_fwVersion.h"
#include "cloud_jsonRpc.h"
#include "cloud_number.h"
#include "cloud_owner.h"
#include "cloud_requestTimeoutHandler.h"
#include "cloud_userConfig.h"
#include "cloud_util.h"
#include "kxcc.h"

namespace {

constexpr int kVersionNumbersRoom = 16;
constexpr int32_t kNoAutoResult = -1;

constexpr std::array<const char *, kFwFieldCount> kFieldNames{
    "fwType", "fwVer", "fwReleaseDate", "fwUrl", "fwReleaseLog", "fwReleaseLogUrl", "fwLocation"};
constexpr std::array kCheckNeeds{kFwType, kFwVer, kFwReleaseDate, kFwReleaseLogUrl, kFwUrl};
constexpr std::array kListNeeds{kFwType, kFwVer, kFwReleaseDate, kFwUrl};

using FwEntry = std::array<const char *, kFwFieldCount>;  // texts of the answer's tree; absent ones null

enum class Outcome { kFailed, kUpToDate, kStored };

struct Answer {
    JsonTree tree;
    const char *errCode = nullptr;
    const char *errMsg = nullptr;  // may be absent
};

constinit int32_t l_lastAutoResult = kNoAutoResult;  // what the sending of the last automatic check gave

bool _open_answer(const char *response, Answer *answer) {
    answer->tree.reset(cloud_jsonParseStr(response));
    if (answer->tree == nullptr) {
        CLOUD_LOG("get jsonrpc obj failed.\n");
        return false;
    }
    answer->errCode = cloud_getValueFromJsonObj(answer->tree.get(), "error_code");
    answer->errMsg = cloud_getValueFromJsonObj(answer->tree.get(), "msg");
    if (answer->errCode == nullptr) {
        CLOUD_LOG("errCode is null ptr\n");
        return false;
    }
    return true;
}

FwEntry _read_entry(cJSON *item) {
    FwEntry entry{};
    for (size_t i = 0; i < entry.size(); ++i) {
        entry[i] = cloud_getValueFromJsonObj(item, kFieldNames[i]);
    }
    return entry;
}

// Of equally new entries the first. Walks the links: access by index would count from the start each time.
FwEntry _choose_newest(const cJSON *list) {
    FwEntry chosen = _read_entry(list->child);
    for (cJSON *item = list->child->next; item != nullptr; item = item->next) {
        if (fwVerCmp(cloud_getValueFromJsonObj(item, kFieldNames[kFwVer]), chosen[kFwVer]) == 1) {
            chosen = _read_entry(item);
        }
    }
    return chosen;
}

Outcome _store_newest(const cJSON *list, std::span<const FwField> needs) {
    const FwEntry chosen = _choose_newest(list);
    for (const FwField field : needs) {
        if (chosen[field] == nullptr) {
            CLOUD_LOG("upgrade info is incorrect.\n");
            return Outcome::kFailed;
        }
    }
    CLOUD_LOG("cloud_setNewFwInfo.\n");
    if (cloud_setNewFwInfo(chosen.data()) != 1) {
        CLOUD_LOG("set upgradInfo failed.\n");
        return Outcome::kFailed;
    }
    CLOUD_LOG("response auto check firmware.\n");  // Contract: whoever asked.
    return Outcome::kStored;
}

// @param needs  members without which an entry is no offer.
// Contract: a missing "result" is logged as an answer that does not parse.
Outcome _handle_list(const cJSON *answer, std::span<const FwField> needs) {
    cJSON *result = cJSON_GetObjectItemCaseSensitive(answer, "result");
    if (result == nullptr) {
        CLOUD_LOG("get jsonrpc obj failed.\n");
        return Outcome::kFailed;
    }
    // Contract: taken as a text and parsed again, so that a list in quotes counts as well.
    const char *text = cloud_getValueFromJsonObj(result, "fwList");
    if (text == nullptr) {
        CLOUD_LOG("Couldn't found fwList\n");
        return Outcome::kFailed;
    }
    const JsonTree list(cloud_jsonParseStr(text));
    if (cJSON_GetJsonObjType(list.get()) != kJsonArray) {
        CLOUD_LOG("arrayFwList's type is not array!\n");
        return Outcome::kFailed;
    }
    if (list->child == nullptr) {
        CLOUD_LOG("FwList is empty! Current firmware is up to date!\n");
        return Outcome::kUpToDate;
    }
    return _store_newest(list.get(), needs);
}

// Contract: a time-out is not counted when the sending gave what that of the last automatic check did.
void _handle_check_error(int32_t result, const Answer &answer) {
    if (cloud_parseInt32(answer.errCode) == KXCC_ERROR_TIMEOUT) {
        if (l_lastAutoResult != result) {
            CLOUD_LOG("cloud_handleTimeout");
            cloud_handleTimeout(kRequestFwCheck);
        } else {
            l_lastAutoResult = kNoAutoResult;
        }
    }
    cloud_handleServerError(answer.errCode, answer.errMsg);
}

Outcome _handle_check(int32_t result, const char *response) {
    Answer answer;
    if (!_open_answer(response, &answer)) {
        return Outcome::kFailed;
    }
    if (cloud_parseInt32(answer.errCode) != 0) {
        _handle_check_error(result, answer);
        return Outcome::kFailed;
    }
    return _handle_list(answer.tree.get(), kCheckNeeds);
}

void _parse_FwListResult(const char *response) {
    Answer answer;
    if (!_open_answer(response, &answer)) {
        return;
    }
    if (cloud_parseInt32(answer.errCode) != 0) {
        CLOUD_LOG("Error Code not Success\n");
        return;
    }
    static_cast<void>(_handle_list(answer.tree.get(), kListNeeds));
}

// Null when the device's identity or the text cannot be had (logged).
HeapText _make_request() {
    CheckInfo info{};
    if (cloud_getCheckFwVerInfo(&info) != 1) {
        CLOUD_LOG("cloud_getCheckFwVerInfo failed!\n");
        return nullptr;
    }
    HeapText request(getFwListCreateJsonMsg(&info));
    if (request == nullptr) {
        CLOUD_LOG("getFwListCreateJsonMsg failed!\n");
    }
    return request;
}

int32_t _send_request(const char *request, HeapText *response) {
    char *text = nullptr;
    const int32_t result = cloud_wrap_send_request_sync(request, kAnswerWaitMs, kRequestKind, &text);
    response->reset(text);
    return result;
}

}  // namespace

char *getFwListCreateJsonMsg(const CheckInfo *info) {
    if (info == nullptr) {
        CLOUD_LOG("info is NULL!\n");
        return nullptr;
    }
    std::array<char, kVersionNumbersRoom> version{};
    if (getDevFwVer(info->sw_version, version.data(), kVersionNumbersRoom) != 1) {
        CLOUD_LOG("getDevFwVer error!\n");
        return nullptr;
    }
    const JsonTree request(cJSON_CreateObject());
    if (request == nullptr || cJSON_AddStringToObject(request.get(), "method", "getIntlFwList") == nullptr) {
        CLOUD_LOG("create pJsonObj failed!\n");
        return nullptr;
    }
    cJSON *params = cJSON_AddObjectToObject(request.get(), "params");
    if (params == nullptr) {
        CLOUD_LOG("create pParamObj failed!\n");
        return nullptr;
    }
    const std::array members{std::pair{"fwId", info->fw_id}, std::pair{"hwId", info->hw_id},
                             std::pair{"oemId", info->oem_id},
                             std::pair{"devFwCurrentVer", static_cast<const char *>(version.data())}};
    bool complete = true;
    for (const auto &[name, value] : members) {
        complete = complete && cJSON_AddStringToObject(params, name, value) != nullptr;
    }
    char *text = complete ? cJSON_PrintUnformatted(request.get()) : nullptr;
    if (text == nullptr) {
        CLOUD_LOG("format json string error!\n");
    }
    return text;
}

void checkFwVerResultHandle(int32_t result, const char *response) {
    const bool downloading = g_fwDownloadFlag != 0;
    if (downloading) {
        CLOUD_LOG("Firmware download is in progress, ignore the fw version change status.\n");
    } else {
        cloud_setFirmwareUpgradeStart(0);
    }
    const Outcome outcome = _handle_check(result, response);
    if (!downloading) {
        cloud_setFirmwareDownloadStatus(outcome == Outcome::kFailed ? kFwCheckFailed : kFwChecked, 0);
    }
    if (outcome == Outcome::kUpToDate) {
        static_cast<void>(cloud_setOldFwInfo());  // the store keeps what it had
    }
}

int checkFwVerFromCloud(int byUser) {
    const HeapText request = _make_request();
    if (request == nullptr) {
        return 0;
    }
    HeapText response;
    const int32_t result = _send_request(request.get(), &response);
    checkFwVerResultHandle(result, response.get());
    if (result < 0) {
        // Contract: the message names another function, here and below.
        CLOUD_LOG("Fail to kxcc_send_request_async, error=%d\n", result);
        return 0;
    }
    if (byUser == 0) {
        l_lastAutoResult = result;
    }
    return 1;
}

int cloud_userCheckFwVerFromCloud() {
    return checkFwVerFromCloud(1);
}

int cloud_autoCheckFwVerFromCloud() {
    return checkFwVerFromCloud(0);
}

int cloud_msg_getFwList() {
    const HeapText request = _make_request();
    if (request == nullptr) {
        return -1;
    }
    HeapText response;
    const int32_t result = _send_request(request.get(), &response);
    _parse_FwListResult(response.get());
    if (result < 0) {
        CLOUD_LOG("Fail to kxcc_send_request_async, error=%d\n", result);
        return result;
    }
    return 0;
}
