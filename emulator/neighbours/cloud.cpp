#include "cloud.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "document.h"

namespace emulator {
namespace {

struct Refusal : std::runtime_error {
    Refusal(int error, const std::string &text) : std::runtime_error(text), code(error) {}
    int code;
};

bool _same_name(const std::string &left, const std::string &right) {
    return strcasecmp(left.c_str(), right.c_str()) == 0;
}

std::string _text(const json &object, const char *name) {
    if (!object.is_object() || !object.contains(name) || !object.at(name).is_string()) {
        throw Refusal(kCloudMissingParams, std::string("Parameter missing or of a wrong type: ") + name);
    }
    return object.at(name);
}

const json &_account(const json &model, const json &params) {
    const std::string name = _text(params, "cloudUserName");
    for (const json &account : model.at("accounts")) {
        if (_same_name(account.at("name"), name)) {
            return account;
        }
    }
    throw Refusal(kCloudUnknownAccount, "Account doesn't exist");
}

const json &_logged_in(const json &model, const json &params) {
    const json &account = _account(model, params);
    if (account.at("password") != _text(params, "cloudPassword")) {
        throw Refusal(kCloudWrongPassword, "Password incorrect");
    }
    return account;
}

json &_device(json &model, const json &params) {
    json &device = model.at("device");
    if (!_same_name(_text(params, "deviceId"), device.at("deviceId"))) {
        throw Refusal(kCloudUnknownDevice, "Device doesn't exist");
    }
    return device;
}

std::string _owner(const json &device) {
    return device.at("owner");
}

json &_bound_device(json &model, const json &params) {
    json &device = _device(model, params);
    if (_owner(device).empty()) {
        throw Refusal(kCloudNotBound, "Device is not bound");
    }
    return device;
}

void _check_owner(const json &device, const std::string &name) {
    if (!_same_name(_owner(device), name)) {
        throw Refusal(kCloudNoPermission, "Account is not the owner");
    }
}

json::iterator _find_user(json &device, const std::string &name) {
    json &users = device.at("users");
    return std::find_if(users.begin(), users.end(), [&](const json &user) { return _same_name(user, name); });
}

json _bind(json &model, const json &params) {
    json &device = _device(model, params);
    const json &account = _logged_in(model, params);
    if (!_owner(device).empty() && !_same_name(_owner(device), account.at("name"))) {
        throw Refusal(kCloudBoundToOther, "Device is bound to another account");
    }
    device["owner"] = account.at("name");
    return json::object();
}

json _unbind(json &model, const json &params) {
    json &device = _bound_device(model, params);
    _check_owner(device, _text(params, "cloudUserName"));
    device["owner"] = "";
    return json::object();
}

json _login(json &model, const json &params) {
    json &device = _bound_device(model, params);
    const json &account = _logged_in(model, params);
    const bool owner = _same_name(_owner(device), account.at("name"));
    if (!owner && _find_user(device, account.at("name")) == device.at("users").end()) {
        throw Refusal(kCloudNoPermission, "Account is no user of this device");
    }
    return {{"role", account.value("role", owner ? 0 : 1)}};
}

json _update_alias(json &model, const json &params) {
    _device(model, params)["alias"] = _text(params, "alias");
    return json::object();
}

json _remove_user(json &model, const json &params) {
    json &device = _bound_device(model, params);
    _check_owner(device, _text(params, "ownerAccount"));
    const auto user = _find_user(device, _text(params, "userAccount"));
    if (user == device.at("users").end()) {
        throw Refusal(kCloudUnknownUser, "No such user of this device");
    }
    device.at("users").erase(user);
    return json::object();
}

json _token(json &model, const json &params) {
    _bound_device(model, params);
    const json &known = model.at("token").at("serviceUrls");
    json urls = json::object();
    for (const json &service : params.value("serviceIds", json::array())) {
        if (service.is_string() && known.contains(service.get<std::string>())) {
            urls[service.get<std::string>()] = known.at(service.get<std::string>());
        }
    }
    json token = model.at("token");
    token["serviceUrls"] = urls;
    return token;
}

std::array<int, 3> _version(const std::string &text) {
    std::array<int, 3> numbers{};
    if (std::sscanf(text.c_str(), "%9d.%9d.%9d", numbers.data(), &numbers[1], &numbers[2]) != 3) {
        throw Refusal(kCloudMissingParams, "Not a version: " + text);
    }
    return numbers;
}

json _firmware_list(json &model, const json &params) {
    const auto current = _version(_text(params, "devFwCurrentVer"));
    json list = json::array();
    for (const json &entry : model.at("firmware")) {
        if (_version(entry.at("fwVer")) > current) {
            list.push_back(entry);
        }
    }
    return {{"fwList", list}};
}

json _hello(json & /*model*/, const json & /*params*/) {
    return {{"kcspStatus", 1}, {"fwDlPage", ""}, {"kcspInfo", ""}, {"stopConnect", 0}, {"reconnectTime", 60}};
}

json _notify_event(json & /*model*/, const json & /*params*/) {
    return json::object();
}

struct Method {
    const char *name;
    json (*call)(json &model, const json &params);
};

constexpr std::array kMethods{
    Method{"bindDevice", _bind},
    Method{"unbindDevice", _unbind},
    Method{"deviceAccountLogin", _login},
    Method{"updateAlias", _update_alias},
    Method{"removeDeviceUser", _remove_user},
    Method{"getDeviceTokenWithServices", _token},
    Method{"getIntlFwList", _firmware_list},
    Method{"helloCloud", _hello},
    Method{"notifyEvent", _notify_event},
};

constexpr std::array kModelMembers{
    Member{"$schema", Kind::kText}, Member{"device", Kind::kObject}, Member{"accounts", Kind::kList},
    Member{"token", Kind::kObject}, Member{"firmware", Kind::kList}, Member{"methods", Kind::kObject},
};
constexpr std::array kDeviceMembers{Member{"deviceId", Kind::kText}, Member{"owner", Kind::kText},
                                    Member{"users", Kind::kList}, Member{"alias", Kind::kText}};
constexpr std::array kTokenMembers{Member{"deviceToken", Kind::kText}, Member{"expiresIn", Kind::kInteger},
                                   Member{"serviceUrls", Kind::kObject}};
constexpr std::array kAccountMembers{Member{"name", Kind::kText, true}, Member{"password", Kind::kText, true},
                                     Member{"role", Kind::kInteger}};
// Of any kind, but for the version that is compared: what a cloud offers may be odd.
constexpr std::array kFirmwareMembers{
    Member{"fwVer", Kind::kText, true},  Member{"fwType", Kind::kAny},
    Member{"fwReleaseDate", Kind::kAny}, Member{"fwUrl", Kind::kAny},
    Member{"fwReleaseLog", Kind::kAny},  Member{"fwReleaseLogUrl", Kind::kAny},
    Member{"fwLocation", Kind::kAny},
};

void _check_model(const json &model) {
    check_members(model, kModelMembers, "the cloud's model");
    const json device = model.value("device", json::object());
    check_members(device, kDeviceMembers, "\"device\" of the cloud's model");
    for (const json &user : device.value("users", json::array())) {
        if (!user.is_string()) {
            throw std::invalid_argument("a user of the cloud's model must be a text, not " + dump(user));
        }
    }
    check_members(model.value("token", json::object()), kTokenMembers, "\"token\" of the cloud's model");
    for (const json &account : model.value("accounts", json::array())) {
        check_members(account, kAccountMembers, "an account of the cloud's model");
    }
    for (const json &firmware : model.value("firmware", json::array())) {
        check_members(firmware, kFirmwareMembers, "a firmware of the cloud's model");
    }
}

constexpr const char *kDefaultModel = R"({
  "device": {
    "deviceId": "8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012",
    "owner": "",
    "users": ["bob@example.com"],
    "alias": ""
  },
  "accounts": [
    {"name": "alice@example.com", "password": "Secret-1"},
    {"name": "bob@example.com", "password": "Secret-2"},
    {"name": "carol@example.com", "password": "Secret-3"}
  ],
  "token": {
    "deviceToken": "7f3a90c2d6e84b15",
    "expiresIn": 7200,
    "serviceUrls": {"eweb": "https://eweb.example.com/device"}
  },
  "firmware": [
    {"fwType": 1, "fwVer": "1.0.5 Build 20210118 Rel.40112", "fwReleaseDate": "2021-01-18",
     "fwUrl": "http://127.0.0.1/re_1.0.5.bin", "fwReleaseLog": "Faster roaming.",
     "fwReleaseLogUrl": "http://127.0.0.1/re_1.0.5.html", "fwLocation": 0},
    {"fwType": 2, "fwVer": "1.0.7 Build 20210611 Rel.51820", "fwReleaseDate": "2021-06-11",
     "fwUrl": "http://127.0.0.1/re_1.0.7.bin", "fwReleaseLog": "Security fixes.",
     "fwReleaseLogUrl": "http://127.0.0.1/re_1.0.7.html", "fwLocation": 0}
  ],
  "methods": {
    "getWeather": {"city": "Exampleville", "sky": "clear", "celsius": 21}
  }
})";

}  // namespace

json Cloud::default_model() {
    return json::parse(kDefaultModel);
}

Cloud::Cloud(const json &model) : model_(default_model()) {
    change(model);
}

json Cloud::model() const {
    const std::lock_guard lock(mutex_);
    return model_;
}

void Cloud::change(const json &members) {
    _check_model(members);
    const std::lock_guard lock(mutex_);
    for (const auto &[name, value] : members.items()) {
        if (name == "device" || name == "token") {
            model_[name].update(value);
        } else if (name != "$schema") {  // for editors
            model_[name] = value;
        }
    }
}

std::string Cloud::success(const json &result) {
    return dump({{"error_code", 0}, {"result", result}});
}

std::string Cloud::failure(int code, std::string_view message) {
    return dump({{"error_code", code}, {"msg", message}});
}

std::string Cloud::answer(std::string_view request) {
    const json parsed = json::parse(valid_utf8(request), nullptr, false);
    if (!parsed.is_object() || !parsed.contains("method") || !parsed.at("method").is_string()) {
        return failure(kCloudBadRequest, "Not a request");
    }
    try {
        return success(_call(parsed.at("method"), parsed.value("params", json::object())));
    } catch (const Refusal &refusal) {
        return failure(refusal.code, refusal.what());
    } catch (const json::exception &error) {  // a member of a type that nothing above expects
        return failure(kCloudMissingParams, error.what());
    }
}

json Cloud::_call(const std::string &method, const json &params) {
    const std::lock_guard lock(mutex_);
    for (const Method &known : kMethods) {
        if (method == known.name) {
            return known.call(model_, params);
        }
    }
    if (model_.at("methods").contains(method)) {
        return model_.at("methods").at(method);
    }
    throw Refusal(kCloudUnknownMethod, "Method doesn't exist");
}

}  // namespace emulator
