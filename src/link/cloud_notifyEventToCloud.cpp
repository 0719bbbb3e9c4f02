#include "cloud_notifyEventToCloud.h"

#include "cloud_api_wrap.h"
#include "cloud_cloudErrorHandler.h"
#include "cloud_jsonRpc.h"
#include "cloud_number.h"
#include "cloud_owner.h"
#include "cloud_util.h"
#include "kxcc.h"

namespace {

// {"method":"notifyEvent","params":{"event":"closeConnection","attribute":{"reason":<reason>}}}
// Null without memory. Contract: an attribute that could not be made is left out.
JsonTree _make_close_notice(int32_t reason) {
    JsonTree root(cJSON_CreateObject());
    JsonTree params(cJSON_CreateObject());
    if (root == nullptr || params == nullptr) {
        return nullptr;
    }
    JsonTree attribute(cJSON_CreateObject());
    cJSON_AddNumberToObject(attribute.get(), "reason", reason);
    cJSON_AddStringToObject(params.get(), "event", "closeConnection");
    if (cJSON_AddItemToObject(params.get(), "attribute", attribute.get()) != 0) {
        static_cast<void>(attribute.release());
    }
    cJSON_AddStringToObject(root.get(), "method", "notifyEvent");
    if (cJSON_AddItemToObject(root.get(), "params", params.get()) != 0) {
        static_cast<void>(params.release());
    }
    return root;
}

}  // namespace

void cloud_closeConnection(int32_t reason) {
    const JsonTree root = _make_close_notice(reason);
    if (root == nullptr) {
        return;
    }
    const char *text = cJSON_GetJsonObjString(root.get());  // goes with its tree
    if (text == nullptr) {
        CLOUD_LOG("closeConnection failed!\n");
        return;
    }
    const int32_t id = kxcc_send_request_async(text, kAnswerWaitMs, kRequestKind, closeConnResultHandle);
    if (id < 0) {
        CLOUD_LOG("Fail to kxcc_send_request_async, error=%d\n", id);
    }
}

void closeConnResultHandle(int32_t /*requestId*/, const char *response) {
    const JsonTree answer(cloud_jsonParseStr(response));
    if (answer == nullptr) {
        CLOUD_LOG("get jsonrpc obj failed.\n");
        return;
    }
    const char *errCode = cloud_getValueFromJsonObj(answer.get(), "error_code");
    const char *errMsg = cloud_getValueFromJsonObj(answer.get(), "msg");
    if (errCode == nullptr) {
        CLOUD_LOG("errCode is null ptr\n");
        return;
    }
    const int32_t code = cloud_parseInt32(errCode);
    if (code == 0) {
        CLOUD_LOG("closeConnection get a correct response!\n");
        return;
    }
    if (code == KXCC_ERROR_TIMEOUT) {
        CLOUD_LOG("closeConnection response timeout!\n");
    }
    cloud_handleServerError(errCode, errMsg);
}
