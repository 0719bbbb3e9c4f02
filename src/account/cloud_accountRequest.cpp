#include "cloud_accountRequest.h"

#include <fcntl.h>

#include <cstdlib>
#include <initializer_list>

#include "cloud_accountKeys.h"
#include "cloud_accountLog.h"
#include "cloud_deviceInfo.h"
#include "cloud_jsonRpc.h"
#include "cloud_owner.h"
#include "cloud_userConfig.h"
#include "cloud_util.h"

namespace cloud_account {
namespace {

constexpr size_t kDeviceIdRoom = 64;
constexpr size_t kServiceIdRoom = 16;
constexpr char kWebService[] = "eweb";
constexpr char kOnlineMethod[] = "a";  // Contract: any method will do, as any answer counts.

using DeviceId = std::array<char, kDeviceIdRoom>;

struct Member {
    const char *key;
    const char *text;
};

/// @param buffer  zeroed; stays empty when the document has no such text.
[[nodiscard]] int _get_devid(DeviceId *buffer) {
    JsonTree tree;
    // Contract: one byte less than the firmware check reads, and of the text one character less is kept.
    if (cloud_loadDeviceInfo(O_RDONLY, kDeviceInfoMax - 1, &tree) != DeviceInfoError::kNone) {
        return -1;
    }
    const cJSON *devid = cJSON_GetObjectItemCaseSensitive(tree.get(), "devid");
    if (cJSON_IsString(devid)) {
        cstr_strncpy(buffer->data(), devid->valuestring, buffer->size());
    }
    return 0;
}

[[nodiscard]] SecretTree _params(std::initializer_list<Member> members, Caller caller = Caller::here()) {
    SecretTree params(cJSON_CreateObject());
    bool complete = params != nullptr;
    for (const Member &member : members) {
        complete = complete && cJSON_AddStringToObject(params.get(), member.key, member.text) != nullptr;
    }
    if (!complete) {
        MSG_LOG_FOR(caller, "Create json object failed.\n");
        params.reset();
    }
    return params;
}

/// Prints {"method":...,"params":...}; without params when there are none.
[[nodiscard]] SecretText _print(const char *method, SecretTree params, Caller caller) {
    const SecretTree request(cJSON_CreateObject());
    const bool named =
        request != nullptr && cJSON_AddStringToObject(request.get(), "method", method) != nullptr;
    const bool complete =
        named && (params == nullptr || cJSON_AddItemToObject(request.get(), "params", params.get()) != 0);
    if (!complete) {
        MSG_LOG_FOR(caller, "Create json object failed.\n");
        return nullptr;
    }
    static_cast<void>(params.release());  // the request's now
    SecretText text = cloud_printSecret(request.get());
    if (text == nullptr) {
        MSG_LOG_FOR(caller, "Format json string failed.");
    }
    return text;
}

[[nodiscard]] SecretText _print_with_params(const char *method, SecretTree params,
                                            Caller caller = Caller::here()) {
    return params == nullptr ? nullptr : _print(method, std::move(params), caller);
}

/// The request of a command that carries a password encrypted with the device's key.
[[nodiscard]] SecretText _format_credentials(const char *method, const char *user, const char *encPassword,
                                             Caller caller = Caller::here()) {
    if (user == nullptr || encPassword == nullptr) {
        return nullptr;
    }
    RsaKeys keys;
    keys.load();
    const SecretText password = keys.decrypt(encPassword);
    if (password == nullptr) {
        MSG_LOG_FOR(caller, "Decrypt password failed.");
        return nullptr;
    }
    DeviceId devid{};
    if (_get_devid(&devid) != 0) {
        return nullptr;
    }
    return _print_with_params(
        method,
        _params({{"deviceId", devid.data()}, {"cloudUserName", user}, {"cloudPassword", password.get()}},
                caller),
        caller);
}

[[nodiscard]] HeapText _decode_passthrough_req(const char *b64Request) {
    HeapText text(static_cast<char *>(calloc(kPassthroughRoom, 1)));
    if (text == nullptr || !_decode_argument(b64Request, text.get(), kPassthroughRoom)) {
        return nullptr;
    }
    return text;
}

/// {"deviceId":...,"serviceIds":[...]}
[[nodiscard]] SecretTree _token_params(const char *devid, const char *service,
                                       Caller caller = Caller::here()) {
    SecretTree params = _params({{"deviceId", devid}}, caller);
    if (params == nullptr) {
        return nullptr;
    }
    cJSON *services = cJSON_AddArrayToObject(params.get(), "serviceIds");
    JsonTree item(services == nullptr ? nullptr : cJSON_CreateString(service));
    if (item == nullptr || cJSON_AddItemToArray(services, item.get()) == 0) {
        MSG_LOG_FOR(caller, "Create json array failed.\n");
        return nullptr;
    }
    static_cast<void>(item.release());  // the array's now
    return params;
}

}  // namespace

SecretText _format_bind_msg_req(const char *user, const char *encPassword) {
    return _format_credentials("bindDevice", user, encPassword);
}

SecretText _format_login_msg_req(const char *user, const char *encPassword) {
    return _format_credentials("deviceAccountLogin", user, encPassword);
}

SecretText _format_bind_msg_req_nocrypt(const char *b64User, const char *b64Password) {
    DeviceId devid{};
    if (b64User == nullptr || b64Password == nullptr || _get_devid(&devid) != 0) {
        return nullptr;
    }
    UserName user{};
    Password password{};
    if (!_decode_argument(b64User, user.data(), user.size()) ||
        !_decode_argument(b64Password, password.data(), password.size())) {
        MSG_LOG("Create json object failed.\n");
        return nullptr;
    }
    return _print_with_params("bindDevice", _params({{"deviceId", devid.data()},
                                                     {"cloudUserName", user.data()},
                                                     {"cloudPassword", password.data()}}));
}

SecretText _format_unbind_msg_req(const char *user, const char * /*unused*/) {
    DeviceId devid{};
    if (_get_devid(&devid) != 0) {
        return nullptr;
    }
    Wiped<AccountList> stored{};
    if (user == nullptr || *user == '\0') {
        cloud_getAccount(&stored);
        if (stored.count < 1) {
            return nullptr;
        }
        user = stored.userName;
    }
    return _print_with_params("unbindDevice", _params({{"deviceId", devid.data()}, {"cloudUserName", user}}));
}

SecretText _format_alias_msg_req(const char *b64Alias, const char * /*unused*/) {
    DeviceId devid{};
    if (b64Alias == nullptr || _get_devid(&devid) != 0) {
        return nullptr;
    }
    Alias alias{};
    if (!_decode_argument(b64Alias, alias.data(), alias.size())) {
        MSG_LOG("Create json object failed.\n");
        return nullptr;
    }
    return _print_with_params("updateAlias", _params({{"deviceId", devid.data()}, {"alias", alias.data()}}));
}

SecretText _format_rmuser_msg_req(const char *owner, const char *user) {
    DeviceId devid{};
    if (owner == nullptr || user == nullptr || _get_devid(&devid) != 0) {
        return nullptr;
    }
    return _print_with_params(
        "removeDeviceUser",
        _params({{"deviceId", devid.data()}, {"ownerAccount", owner}, {"userAccount", user}}));
}

SecretText _format_online_msg_req(const char * /*unused*/, const char * /*unused*/) {
    return _print(kOnlineMethod, nullptr, Caller::here());
}

SecretText _format_devtoken_msg_req(const char *serviceId, const char * /*unused*/) {
    std::array<char, kServiceIdRoom> service{};
    cstr_strncpy(service.data(), serviceId == nullptr ? kWebService : serviceId, service.size());
    DeviceId devid{};
    if (_get_devid(&devid) != 0) {
        return nullptr;
    }
    return _print_with_params("getDeviceTokenWithServices", _token_params(devid.data(), service.data()));
}

SecretText _format_passthrough_msg_req(const char *method, const char *b64Request) {
    if (method == nullptr || b64Request == nullptr) {
        return nullptr;
    }
    const HeapText request = _decode_passthrough_req(b64Request);
    SecretTree params(cloud_jsonParseStr(request.get()));
    if (params == nullptr) {
        MSG_LOG("Create json object failed.\n");  // Contract: the text of another failure.
        return nullptr;
    }
    return _print_with_params(method, std::move(params));
}

}  // namespace cloud_account
