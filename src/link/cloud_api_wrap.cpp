#include "cloud_api_wrap.h"

#include <unistd.h>

#include <cstdlib>

#include "cloud_jsonRpc.h"
#include "cloud_number.h"
#include "cloud_owner.h"
#include "cloud_util.h"

namespace {

constexpr int kAttempts = 3;
constexpr int32_t kPollStepMs = KXCC_POLL_INTERVAL_MS;
constexpr int32_t kMethodUnknown = -20103;  // the cloud's own refusal: the request reached it

// Waits for the answer to one submission. Contract: counts steps, looks at no clock.
[[nodiscard]] int32_t _poll_noaccount(int32_t id, int32_t timeoutMs, char **responseOut) {
    for (int64_t elapsedMs = 0; elapsedMs <= timeoutMs; elapsedMs += kPollStepMs) {
        if (kxcc_get_response(id, responseOut) == KXCC_OK) {
            return KXCC_OK;
        }
        usleep(kPollStepMs * 1000);
    }
    return KXCC_ERROR_TIMEOUT;
}

[[nodiscard]] HeapText _format_link_test() {
    const JsonTree request(cJSON_CreateObject());
    if (request == nullptr ||
        cJSON_AddStringToObject(request.get(), "method", "myTestConnection") == nullptr) {
        CLOUD_LOG("create pJsonObj failed!\n");
        return nullptr;
    }
    HeapText text(cJSON_PrintUnformatted(request.get()));
    if (text == nullptr) {
        CLOUD_LOG("format json string error!\n");
    }
    return text;
}

[[nodiscard]] int32_t _milliseconds(int32_t seconds) {
    return cloud_clampTo<int32_t>(seconds * 1000.0);
}

[[nodiscard]] bool _wait_for_link(int32_t waitS) {
    for (int32_t i = 0; i < waitS; ++i) {
        if (kxcc_get_link_status() == KXCC_LINK_UP) {
            return true;
        }
        CLOUD_LOG("waiting for reconnect...\n");
        cloud_sleep(1);
    }
    return false;
}

}  // namespace

int32_t cloud_wrap_send_request_sync(const char *request, int32_t timeoutMs, uint32_t kind,
                                     char **responseOut) {
    if (kxcc_get_logic_status() == KXCC_LOGIC_ACCOUNT) {
        return cloud_wrap_send_request_sync_account(request, timeoutMs, kind, responseOut);
    }
    return cloud_wrap_send_request_sync_noaccount(request, timeoutMs, kind, responseOut);
}

int32_t cloud_wrap_send_request_sync_account(const char *request, int32_t timeoutMs, uint32_t kind,
                                             char **responseOut) {
    return kxcc_send_request_sync(request, timeoutMs, static_cast<int32_t>(kind), responseOut);
}

int32_t cloud_wrap_send_request_sync_noaccount(const char *request, int32_t timeoutMs, uint32_t kind,
                                               char **responseOut) {
    if (request == nullptr) {
        return KXCC_ERROR_GENERAL;
    }
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int32_t id =
            kxcc_send_request_async_noaccount(request, timeoutMs, static_cast<int32_t>(kind), nullptr);
        if (id < 0) {
            return id;
        }
        if (_poll_noaccount(id, timeoutMs, responseOut) == KXCC_OK) {
            return KXCC_OK;
        }
    }
    return KXCC_ERROR_TIMEOUT;
}

int32_t cloud_wrap_set_connection_mode(int32_t mode) {
    return kxcc_notify_cloud_brd(mode == kModeAccount ? KXCC_EVENT_ACCOUNT_MODE : KXCC_EVENT_NO_ACCOUNT_MODE);
}

int testCloudSrvConnection(int32_t timeoutS) {
    const HeapText request = _format_link_test();
    if (request == nullptr) {
        return 0;
    }
    char *answer = nullptr;
    const int32_t sent =
        cloud_wrap_send_request_sync(request.get(), _milliseconds(timeoutS), kRequestKind, &answer);
    const HeapText response(answer);
    if (sent != KXCC_OK || response == nullptr) {
        return 0;
    }
    const JsonTree tree(cloud_jsonParseStr(response.get()));
    if (tree == nullptr) {
        CLOUD_LOG("get jsonrpc obj failed.");
        return 0;
    }
    const char *code = cloud_getValueFromJsonObj(tree.get(), "error_code");
    if (code == nullptr) {
        CLOUD_LOG("errCode is null ptr.");
        return 0;
    }
    return cloud_parseInt32(code) == kMethodUnknown ? 1 : 0;
}

int cloud_checkSslPath(int32_t event, int32_t waitS) {
    if (kxcc_get_link_status() == KXCC_LINK_UP) {
        if (testCloudSrvConnection(waitS) == 1) {
            CLOUD_LOG("ssl path is OK.\n");
            return kPathGood;
        }
        CLOUD_LOG("link status is ok, while ssl path is bad, try to reconnect.\n");
        kxcc_notify_cloud_brd(event);
        return kPathBad;
    }
    CLOUD_LOG("client havn't been connected to server, now try to connect.\n");
    if (kxcc_notify_cloud_brd(event) < 0) {
        CLOUD_LOG("Failed to notify cloud brd to reconnect.\n");
        return kPathBad;
    }
    return _wait_for_link(waitS) ? kPathGood : kPathBad;
}
