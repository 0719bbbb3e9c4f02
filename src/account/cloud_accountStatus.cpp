// Account commands that need no request of their own.
#include <cstdlib>
#include <cstring>

#include "cloud_account.h"
#include "cloud_api_wrap.h"
#include "cloud_owner.h"
#include "cloud_path.h"
#include "cloud_replaceFile.h"
#include "cloud_secret.h"
#include "cloud_userConfig.h"
#include "cloud_util.h"
#include "kxcc.h"

namespace {

constexpr uint8_t kMarked = 1;

// Contract: an account counts by its password, not by its name or the count.
[[nodiscard]] int _has_account() {
    Wiped<AccountList> list;
    cloud_getAccount(&list);
    return list.password[0] != '\0' ? 1 : 0;
}

[[nodiscard]] bool _is_marked(const DeviceStatus &status) {
    return status.bind_status == kMarked || status.need_unbind == kMarked;
}

void _write_factory_part(cJSON *object) {
    const JsonText text(object == nullptr ? nullptr : cJSON_Print(object));
    if (text == nullptr) {
        return;
    }
    const size_t length = strlen(text.get());
    const HeapText report(static_cast<char *>(malloc(length + 1)));
    if (report != nullptr) {
        memcpy(report.get(), text.get(), length);
        report.get()[length] = '\n';
        static_cast<void>(cloud_replaceFile(kFactoryPath, {report.get(), length + 1}));
    }
}

/// @param list, status  either may be null: its keys are then left out.
int _format_factory_info(const AccountList *list, const DeviceStatus *status) {
    const JsonTree report(cJSON_CreateObject());
    if (report == nullptr) {
        return -1;
    }
    bool complete =
        list == nullptr || (cJSON_AddStringToObject(report.get(), "username", list->userName) != nullptr &&
                            cJSON_AddStringToObject(report.get(), "password", list->password) != nullptr);
    if (status != nullptr && status->need_unbind == 0) {
        complete &= cJSON_AddNumberToObject(report.get(), "bind_status", status->bind_status) != nullptr;
    } else if (status != nullptr) {
        complete &= cJSON_AddNumberToObject(report.get(), "need_unbind", status->need_unbind) != nullptr;
    }
    if (!complete) {
        return -1;  // an incomplete report is not written, and an older one stays
    }
    _write_factory_part(report.get());
    return 0;
}

int32_t _do_factory() {
    DeviceStatus status;
    cloud_getDeviceStatus(&status);
    if (!_is_marked(status)) {
        return 0;
    }
    static_cast<void>(cloud_msg_unbind_device(nullptr));  // the status, read again, shows the outcome
    cloud_getDeviceStatus(&status);
    if (!_is_marked(status)) {
        return 0;
    }
    // Not unbound: the report tells with which account the unbind is still owed. Contract: the store stays.
    Wiped<AccountList> list;
    cloud_getAccount(&list);
    status.need_unbind = kMarked;
    _format_factory_info(&list, &status);
    return 0;
}

}  // namespace

int32_t cloud_msg_check_bind_status() {
    return _has_account();
}

int32_t cloud_msg_get_logic_status() {
    return kxcc_get_logic_status();
}

int32_t cloud_msg_set_logic_status() {
    cloud_wrap_set_connection_mode(_has_account());
    return 0;
}

int32_t cloud_msg_factory() {
    return _do_factory();
}
