#include "cloud_register.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "cloud_accept.h"
#include "cloud_hello.h"
#include "cloud_instance.h"
#include "cloud_ipc.h"
#include "cloud_json.h"
#include "cloud_log.h"
#include "cloud_owner.h"
#include "cloud_signals.h"
#include "cloud_wire.h"

namespace {

constexpr char kLogUnit[] = "cloud_register";
constexpr int kNoDescriptor = 0;

// The helpers log in the name of the function that they work for.
constexpr char kThread[] = "register_thread";
constexpr char kDispatch[] = "register_handle_dispatch";

// A copy, so that none of them is called under the lock. Runs in the register thread; the owning
// thread blocks signals around the lock instead.
[[nodiscard]] RegisterHooks _hooks(CloudApi *api) {
    const LockHeld lock(&api->registerLock);
    return {api->handler, api->hooks};
}

[[nodiscard]] int32_t _send(int fd, Message message, const char *text) {
    return cloud_thread_send(fd, static_cast<uint32_t>(message), text);
}

// Announces the connection as the device's service. Returns whether the broker consents.
[[nodiscard]] bool _announce(CloudApi *api) {
    std::array<char, kShortBodySize> text{};
    snprintf(text.data(), text.size(), "{\"hellocloud\":%d}", _hooks(api).hello.request != nullptr ? 1 : 0);
    if (_send(api->registerFd, Message::kRegister, text.data()) != KXCC_OK) {
        CLOUD_ERROR_IN(kThread, "ipc send error");
        return false;
    }
    uint32_t type = 0;
    char *received = nullptr;
    const int32_t result = cloud_ipc_recv(api->registerFd, &type, &received);
    const HeapText body(received);
    if (result != KXCC_OK) {
        CLOUD_ERROR_IN(kThread, "ipc recv error");
        return false;
    }
    const JsonTree tree = cloud_json_parse(body.get());
    if (tree == nullptr) {
        CLOUD_ERROR_IN(kThread, "parse message error");
        return false;
    }
    int32_t errorCode = 0;
    if (!cloud_json_int(tree.get(), "errorcode", &errorCode)) {
        CLOUD_ERROR_IN(kThread, "parse errorcode error");
        return false;
    }
    if (errorCode != 0) {
        CLOUD_ERROR_IN(kThread, "register error, errorcode:%d", errorCode);
        return false;
    }
    return true;
}

// One round of the thread. Returns false when the broker has gone.
[[nodiscard]] bool _serve(int fd) {
    usleep(kLoopSleepMs * kUsPerMs);
    const int ready = cloud_ipc_wait(fd, kLoopWaitMs);
    if (ready <= 0) {
        if (ready < 0 && errno != EINTR) {
            CLOUD_DEBUG_IN(kThread, "select error");
        }
        return true;
    }
    uint32_t type = 0;
    char *received = nullptr;
    const int32_t result = cloud_ipc_recv(fd, &type, &received);
    const HeapText body(received);
    if (result == KXCC_ERROR_RECEIVE) {
        CLOUD_ERROR_IN(kThread, "cloud-brd close ipc");
        return false;
    }
    if (result != KXCC_OK) {
        CLOUD_ERROR_IN(kThread, "ipc recv error");
        return true;
    }
    register_handle_dispatch(fd, type, body.get());
    return true;
}

void _greet(int fd, const RegisterHooks &hooks) {
    kxcc_hello_info *given = nullptr;
    if (hooks.hello.request != nullptr) {
        hooks.hello.request(&given);
    }
    const HelloInfo info(given);
    if (info == nullptr) {
        CLOUD_ERROR_IN(kDispatch, "fail to get the request string of hellocloud");
        return;
    }
    const JsonText body = cloud_hello_request(*info);
    if (body == nullptr) {
        return;
    }
    if (_send(fd, Message::kHelloRequest, body.get()) != KXCC_OK) {
        CLOUD_ERROR_IN(kDispatch, "ipc send helloCloud error");
        return;
    }
    CLOUD_DEBUG_IN(kDispatch, "ipc send helloCloud success");
}

void _take_greeting_answer(const char *body, const RegisterHooks &hooks) {
    kxcc_hello_result result{};
    JsonTree owner;
    if (cloud_hello_result(body, &result, &owner) && hooks.hello.response != nullptr) {
        hooks.hello.response(&result);
    }
}

[[nodiscard]] JsonText _response_body(int32_t errorCode, const char *response) {
    const JsonTree tree(cJSON_CreateObject());
    const bool built =
        cJSON_AddNumberToObject(tree.get(), "errorcode", errorCode) != nullptr &&
        cJSON_AddStringToObject(tree.get(), "response", response != nullptr ? response : "") != nullptr;
    return cloud_json_print(built ? tree.get() : nullptr);
}

void _answer_cloud(int fd, const char *body, const RegisterHooks &hooks) {
    const JsonTree tree = cloud_json_parse(body);
    if (tree == nullptr) {
        CLOUD_ERROR_IN(kDispatch, "parse message error");
        return;
    }
    const char *const request = cloud_json_text(tree.get(), "request");
    if (request == nullptr) {
        CLOUD_ERROR_IN(kDispatch, "parse request error");
        return;
    }
    if (hooks.handler == nullptr) {
        CLOUD_ERROR_IN(kDispatch, "parameter error");
        return;
    }
    char *given = nullptr;
    const int32_t errorCode = hooks.handler(request, &given);
    const HeapText response(given);
    const JsonText answer = _response_body(errorCode, response.get());
    if (answer == nullptr) {
        CLOUD_ERROR_IN(kDispatch, "create object error");
        return;
    }
    if (_send(fd, Message::kCloudResponse, answer.get()) != KXCC_OK) {
        CLOUD_ERROR_IN(kDispatch, "ipc send response error");
    }
}

}  // namespace

void register_set_hooks(CloudApi *api, const RegisterHooks &hooks) {
    const SignalsBlocked blocked;
    const LockHeld lock(&api->registerLock);
    api->handler = hooks.handler;
    api->hooks = hooks.hello;
}

int32_t register_thread_create(CloudApi *api) {
    if (api == nullptr) {
        CLOUD_ERROR("parameter error");
        return KXCC_ERROR_PARAMETER;
    }
    return cloud_thread_ensure(&api->registerThread, api,
                               {register_thread, "register", "pthread create error"}, CLOUD_HERE);
}

int32_t register_thread_destroy(CloudApi *api) {
    CLOUD_DEBUG("will destroy register thread");
    if (api == nullptr) {
        CLOUD_ERROR("parameter error");
        return KXCC_ERROR_PARAMETER;
    }
    const bool ran = cloud_thread_runs(api->registerThread);
    api->registerStop = 1;
    cloud_thread_join(&api->registerThread);  // one that gave up may still be on its way out
    api->registerStop = 0;
    if (!ran) {
        CLOUD_DEBUG("register thread already destroyed");
        return KXCC_OK;
    }
    api->registered = 0;
    api->registerFd = kNoDescriptor;
    register_set_hooks(api, {});
    return KXCC_OK;
}

void *register_thread(void *argument) {
    auto *const api = static_cast<CloudApi *>(argument);
    cloud_thread_mark_self(&api->registerThread);
    if (!register_thread_connect_daemon(api)) {
        CLOUD_ERROR("register thread connect daemon error");
        return reinterpret_cast<void *>(1);
    }
    UniqueFd fd(api->registerFd);
    const bool accepted = _announce(api);
    if (accepted) {
        api->registered = 1;
        CLOUD_DEBUG("register thread loop start");
        while (api->registerStop == 0 && _serve(fd.get())) {
        }
    } else {
        // A refused program may ask again: the next registration starts a new thread.
        api->registerThread.gaveUp = 1;
    }
    fd.reset();
    api->registerFd = kNoDescriptor;
    CLOUD_DEBUG("register thread exit");
    return accepted ? nullptr : reinterpret_cast<void *>(1);
}

bool register_thread_connect_daemon(CloudApi *api) {
    UniqueFd fd(cloud_ipc_client_init(kBrokerPath));
    if (!fd.ok()) {
        CLOUD_ERROR("ipc client init error");
        return false;
    }
    CLOUD_DEBUG("api register sockfd:%d", fd.get());
    if (!cloud_api_accept(fd.get(), CLOUD_HERE, "errocode")) {  // Contract: spelled so.
        return false;
    }
    CLOUD_DEBUG("thread connect daemon success");
    api->registerFd = fd.release();
    return true;
}

void register_handle_dispatch(int fd, uint32_t type, const char *body) {
    CloudApi *const api = cloudApi;
    if (fd < 0 || api == nullptr) {
        CLOUD_ERROR("parameter error");
        return;
    }
    const RegisterHooks hooks = _hooks(api);
    switch (static_cast<Message>(type)) {
        case Message::kHelloAsk:
            CLOUD_DEBUG("dispatch as daemon hellocloud request");
            _greet(fd, hooks);
            break;
        case Message::kHelloAnswer:
            CLOUD_DEBUG("dispatch as daemon hellocloud response");
            _take_greeting_answer(body, hooks);
            break;
        case Message::kCloudRequest:
            CLOUD_DEBUG("dispatch as daemon cloud request");
            _answer_cloud(fd, body, hooks);
            break;
        default:
            CLOUD_ERROR("dispatch fail");
            break;
    }
}
