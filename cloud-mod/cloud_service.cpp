// Registering the program as the device's service: a public call, documented in kxcc.h.
#include <kxcc.h>
#include <unistd.h>

#include "cloud_api.h"
#include "cloud_log.h"
#include "cloud_register.h"
#include "cloud_time.h"
#include "cloud_wire.h"

namespace {

constexpr char kLogUnit[] = "cloud_register";  // the log's readers know the call by that name

// Waits for the thread to report the broker's consent. A signal may take the instance away meanwhile.
[[nodiscard]] bool _wait_registered(const CloudApi *api) {
    const int64_t startMs = cloud_time_ms();
    while (cloudApi == api) {
        if (api->registered != 0) {
            return true;
        }
        if (cloud_time_ms() - startMs >= kRegisterWaitMs) {
            break;
        }
        usleep(kLoopSleepMs * kUsPerMs);
    }
    return false;
}

}  // namespace

int32_t kxcc_register_callback_v2(kxcc_request_handler handler, const kxcc_hello_hooks *hooks) {
    if (handler == nullptr || hooks == nullptr) {
        CLOUD_ERROR("parameter error");
        return KXCC_ERROR_PARAMETER;
    }
    CloudApi *const api = cloud_api_init();
    cloudApi = api;
    if (api == nullptr) {
        CLOUD_DEBUG("cloud api init error");
        return KXCC_ERROR_GENERAL;
    }
    CLOUD_DEBUG("cloud api init success");
    register_set_hooks(api, {handler, *hooks});
    const int32_t created = register_thread_create(api);
    if (created != KXCC_OK) {
        CLOUD_DEBUG("register thread create error");
        return created;
    }
    if (!_wait_registered(api)) {
        CLOUD_ERROR("register callback error");
        return KXCC_ERROR_TIMEOUT;
    }
    CLOUD_DEBUG("register callback success");
    return KXCC_OK;
}
