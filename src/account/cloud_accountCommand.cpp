#include "cloud_accountCommand.h"

#include <array>
#include <cstdio>

#include "cloud_account.h"
#include "cloud_accountKeys.h"
#include "cloud_accountLog.h"
#include "cloud_accountRequest.h"
#include "cloud_accountResult.h"
#include "cloud_accountState.h"
#include "cloud_api_wrap.h"
#include "cloud_number.h"
#include "cloud_owner.h"
#include "cloud_path.h"
#include "cloud_replaceFile.h"

namespace cloud_account {
namespace {

void _msg_write_error(int32_t result) {
    std::array<char, kNumberRoom> text;
    const int length = snprintf(text.data(), text.size(), "%d\n", result);
    static_cast<void>(cloud_replaceFile(kErrorPath, {text.data(), static_cast<size_t>(length)}));
}

// A command's result: whatever it ends with is left in the error file.
struct ReportedResult {
    int32_t value = kFailed;
    ReportedResult() = default;
    ReportedResult(const ReportedResult &) = delete;
    ReportedResult &operator=(const ReportedResult &) = delete;
    ~ReportedResult() { _msg_write_error(value); }
};

// What every command shares.
[[nodiscard]] int32_t _run(const char *arg1, const char *arg2, FormatRequest format, ParseResponse parse,
                           OnSuccess onSuccess) {
    return _do_message(arg1, arg2, kAnswerWaitMs, cloud_wrap_send_request_sync, format, parse, onSuccess);
}

// Some commands look at their arguments themselves. Contract: the message is spelled so.
[[nodiscard]] bool _refuse_missing(const char *arg1, const char *arg2, Caller caller = Caller::here()) {
    if (arg1 != nullptr && arg2 != nullptr) {
        return false;
    }
    MSG_LOG_FOR(caller, "Invaild Params.\n");
    _msg_write_error(kFailed);
    return true;
}

}  // namespace

int32_t _do_message(const char *arg1, const char *arg2, int32_t timeoutMs, SendRequest send,
                    FormatRequest format, ParseResponse parse, OnSuccess onSuccess) {
    ReportedResult result;
    if (send == nullptr) {
        MSG_LOG("IPC send callback is NULL.");
        return result.value;
    }
    const SecretText request = format(arg1, arg2);
    if (request == nullptr) {
        MSG_LOG("Format request message failed.");
        return result.value;
    }
    char *answer = nullptr;
    result.value = send(request.get(), timeoutMs, kRequestKind, &answer);
    const HeapText response(answer);
    if (result.value < 0) {
        MSG_LOG("Fail to send request sync, error=%d\n", result.value);
        return result.value;
    }
    result.value = parse(response.get(), arg1);
    if (result.value == 0 && onSuccess != nullptr) {
        onSuccess(arg1, arg2);
    }
    return result.value;
}

}  // namespace cloud_account

using namespace cloud_account;

int32_t cloud_msg_bind_device(const char *user, const char *encPassword) {
    if (_refuse_missing(user, encPassword)) {
        return kFailed;
    }
    return _run(user, encPassword, _format_bind_msg_req, _parse_binddev_result, _bind_store_account);
}

int32_t cloud_msg_tmp_bind_device(const char *b64User, const char *b64Password) {
    if (_refuse_missing(b64User, b64Password)) {
        return kFailed;
    }
    return _run(b64User, b64Password, _format_bind_msg_req_nocrypt, _parse_binddev_result,
                _tmp_bind_store_account);
}

int32_t cloud_msg_unbind_device(const char *user) {
    return _run(user, nullptr, _format_unbind_msg_req, _parse_unbinddev_result, _unbind_clear_account);
}

int32_t cloud_msg_tmp_unbind_device(const char *user) {
    return _run(user, nullptr, _format_unbind_msg_req, _parse_unbinddev_result, _tmp_unbind_clear_account);
}

int32_t cloud_msg_account_login(const char *user, const char *encPassword) {
    if (_refuse_missing(user, encPassword)) {
        return kFailed;
    }
    return _run(user, encPassword, _format_login_msg_req, _parse_login_result, _config_login_info);
}

int32_t cloud_msg_update_alias(const char *b64Alias) {
    return _run(b64Alias, nullptr, _format_alias_msg_req, _parse_update_alias_result, _update_alias_store);
}

int32_t cloud_msg_remove_user(const char *owner, const char *user) {
    return _run(owner, user, _format_rmuser_msg_req, _parse_rmuser_result, nullptr);
}

int32_t cloud_msg_check_online() {
    return _run(nullptr, nullptr, _format_online_msg_req, _parse_online_result, nullptr);
}

int32_t cloud_msg_get_devtoken() {
    return _run(nullptr, nullptr, _format_devtoken_msg_req, _parse_token_result, nullptr);
}

int32_t cloud_msg_passthrough(const char *method, const char *b64Request) {
    return _run(method, b64Request, _format_passthrough_msg_req, _parse_passthrough_result, nullptr);
}
