#include "cloud_hello.h"

#include <array>
#include <cstdlib>

#include "cloud_json.h"
#include "cloud_log.h"

namespace {

// The greeting is the business of the register thread's dispatcher: it logs in its name.
constexpr char kLogUnit[] = "cloud_register";
constexpr char kCall[] = "register_handle_dispatch";
constexpr char kKcspVersion[] = "1.2";

struct HelloField {
    const char *key;
    char *kxcc_hello_info::*text;
};

// The greeting's parameters after "kcspVer", in the order in which they are sent.
constexpr std::array kHelloFields{
    HelloField{"deviceId", &kxcc_hello_info::deviceId},
    HelloField{"cloudUserName", &kxcc_hello_info::cloudUserName},
    HelloField{"deviceName", &kxcc_hello_info::deviceName},
    HelloField{"alias", &kxcc_hello_info::alias},
    HelloField{"deviceMac", &kxcc_hello_info::deviceMac},
    HelloField{"hwId", &kxcc_hello_info::hardwareId},
    HelloField{"deviceModel", &kxcc_hello_info::deviceModel},
    HelloField{"deviceHwVer", &kxcc_hello_info::deviceHardwareVersion},
    HelloField{"fwId", &kxcc_hello_info::firmwareId},
    HelloField{"oemId", &kxcc_hello_info::oemId},
    HelloField{"fwVer", &kxcc_hello_info::firmwareVersion},
};

[[nodiscard]] JsonTree _request(const kxcc_hello_info &info) {
    JsonTree tree(cJSON_CreateObject());
    cJSON_AddStringToObject(tree.get(), "method", "helloCloud");
    cJSON *const params = cJSON_AddObjectToObject(tree.get(), "params");
    bool built = cJSON_AddStringToObject(params, "kcspVer", kKcspVersion) != nullptr;
    for (const HelloField &field : kHelloFields) {
        const char *const text = info.*field.text;
        built = built && cJSON_AddStringToObject(params, field.key, text != nullptr ? text : "") != nullptr;
    }
    if (!built) {
        tree.reset();
    }
    return tree;
}

}  // namespace

void cloud_hello_free(kxcc_hello_info *info) {
    const std::unique_ptr<kxcc_hello_info, Releaser<free>> memory(info);
    if (info == nullptr) {
        return;
    }
    for (const HelloField &field : kHelloFields) {
        const HeapText text(info->*field.text);
    }
}

JsonText cloud_hello_request(const kxcc_hello_info &info) {
    const JsonTree request = _request(info);
    if (request == nullptr) {
        CLOUD_ERROR_IN(kCall, "fail to create json object");
        return nullptr;
    }
    const JsonText text = cloud_json_print(request.get());
    if (text == nullptr) {
        CLOUD_ERROR_IN(kCall, "transfer from json to string error");
        return nullptr;
    }
    const JsonTree message(cJSON_CreateObject());
    if (cJSON_AddStringToObject(message.get(), "response", text.get()) == nullptr) {
        CLOUD_ERROR_IN(kCall, "create object error");
        return nullptr;
    }
    JsonText body = cloud_json_print(message.get());
    if (body == nullptr) {
        CLOUD_ERROR_IN(kCall, "transfer from json to string error");
    }
    return body;
}

bool cloud_hello_result(const char *body, kxcc_hello_result *result, JsonTree *answer) {
    const JsonTree message = cloud_json_parse(body);
    if (message == nullptr) {
        CLOUD_ERROR_IN(kCall, "parse message error");
        return false;
    }
    int32_t brokerCode = 0;  // must be there; the cloud's own code is what counts
    if (!cloud_json_int(message.get(), "errorcode", &brokerCode)) {
        CLOUD_ERROR_IN(kCall, "parse errorcode error");
        return false;
    }
    const char *const response = cloud_json_text(message.get(), "response");
    if (response == nullptr) {
        CLOUD_ERROR_IN(kCall, "parse response error");
        return false;
    }
    *answer = cloud_json_parse(response);
    if (*answer == nullptr) {
        CLOUD_ERROR_IN(kCall, "parse message error");
        return false;
    }
    if (!cloud_json_int(answer->get(), "error_code", &result->errorCode)) {
        CLOUD_ERROR_IN(kCall, "parse inner errorcode error");
        return false;
    }
    if (result->errorCode != 0) {
        CLOUD_ERROR_IN(kCall, "inner errorcode:%d",
                       result->errorCode);  // such an answer mostly has no "result"
    }
    const cJSON *const fields = cJSON_GetObjectItemCaseSensitive(answer->get(), "result");
    if (cJSON_IsObject(fields) == 0) {
        CLOUD_ERROR_IN(kCall, "get result error");
        return false;
    }
    result->firmwareDownloadPage = cloud_json_text(fields, "fwDlPage");
    result->info = cloud_json_text(fields, "kcspInfo");
    if (result->firmwareDownloadPage == nullptr || result->info == nullptr ||
        !cloud_json_int(fields, "kcspStatus", &result->status) ||
        !cloud_json_int(fields, "stopConnect", &result->stopConnect) ||
        !cloud_json_int(fields, "reconnectTime", &result->reconnectTime)) {
        CLOUD_ERROR_IN(kCall, "get result error");
        return false;
    }
    return true;
}
