// The calls on the main connection: submit a request, ask for its answer, both at once, the broker's
// status, and notifications. They are public calls, documented in kxcc.h.
//
// Each is one message out and one in, in the calling thread. A callback may make them too, while the
// program's thread does: the exchanges take turns. A failed exchange leaves the connection as it is; nothing
// is sent again.
#include <kxcc.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "cloud_api.h"
#include "cloud_callback.h"
#include "cloud_ipc.h"
#include "cloud_json.h"
#include "cloud_log.h"
#include "cloud_owner.h"
#include "cloud_time.h"
#include "cloud_wire.h"

namespace {

constexpr char kLogUnit[] = "cloud_interface";

// The helpers log in the name of the public call that they work for, `call`.

// Held for one exchange. Not the instance's own, as SIGPIPE takes that away under a call.
constinit Mutex l_exchangeLock;

// The turn of an exchange. The callback thread does not wait for a turn that a teardown will not give: it is
// joined by a handler that may have interrupted the holder.
class Turn {
public:
    Turn() {
        const CloudApi *const api = cloudApi;
        own_ = api != nullptr && cloud_thread_is_self(api->callbackThread);
        if (!own_) {
            held_ = pthread_mutex_lock(&l_exchangeLock.handle) == 0;
            return;
        }
        while (!held_ && api->callbackStop == 0) {
            held_ = pthread_mutex_trylock(&l_exchangeLock.handle) == 0;
            if (!held_) {
                usleep(kUsPerMs);
            }
        }
    }
    ~Turn() {
        if (held_) {
            pthread_mutex_unlock(&l_exchangeLock.handle);
        }
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;
    [[nodiscard]] bool held() const { return held_; }
    /// In the callback thread, which has SIGPIPE blocked.
    [[nodiscard]] bool own() const { return own_; }

private:
    bool own_ = false;
    bool held_ = false;
};

using ShortBody = std::array<char, kShortBodySize>;

// Gives the main connection, made on first use. The bare descriptor, because the instance may be
// gone as soon as something is sent on it.
[[nodiscard]] bool _main_connection(const char *call, int *fd) {
    CloudApi *api = cloudApi;
    if (api != nullptr) {
        CLOUD_DEBUG_IN(call, "cloud api already exists");
    } else {
        api = cloud_api_init();
        cloudApi = api;
        if (api == nullptr) {
            CLOUD_DEBUG_IN(call, "cloud api init error");
            return false;
        }
        CLOUD_DEBUG_IN(call, "cloud api init success");
    }
    *fd = api->clientFd;
    return true;
}

// Sends one message and receives the next, whatever its type. `level` is that of the failures' logs.
[[nodiscard]] int32_t _exchange(const char *call, LogLevel level, int fd, Message message, const char *text,
                                uint32_t *type, HeapText *body) {
    const Turn turn;
    const auto send = turn.own() ? cloud_thread_send : cloud_ipc_send;
    const int32_t sent = turn.held() ? send(fd, static_cast<uint32_t>(message), text) : KXCC_ERROR_SEND;
    if (sent != KXCC_OK) {
        CLOUD_LOG_IN(level, call, "ipc send error");
        return sent;
    }
    char *received = nullptr;
    const int32_t result = cloud_ipc_recv(fd, type, &received);
    body->reset(received);
    if (result != KXCC_OK) {
        CLOUD_LOG_IN(level, call, "ipc recv error");
    }
    return result;
}

// Sends a notification or a query and reads the reply's "errorcode".
// Returns KXCC_OK with *errorCode and *tree, or the library's code.
[[nodiscard]] int32_t _ask_broker(const char *call, Message message, const char *text, int32_t *errorCode,
                                  JsonTree *tree) {
    int fd = -1;
    if (!_main_connection(call, &fd)) {
        return KXCC_ERROR_SEND;
    }
    uint32_t type = 0;
    HeapText body;
    const int32_t result = _exchange(call, LogLevel::kError, fd, message, text, &type, &body);
    if (result != KXCC_OK) {
        return result;
    }
    *tree = cloud_json_parse(body.get());
    if (*tree == nullptr) {
        CLOUD_ERROR_IN(call, "parse message error");
        return KXCC_ERROR_REPLY;
    }
    if (!cloud_json_int(tree->get(), "errorcode", errorCode)) {
        CLOUD_ERROR_IN(call, "parse errorcode error");
        return KXCC_ERROR_REPLY;
    }
    return KXCC_OK;
}

[[nodiscard]] int32_t _status(const char *call, Message query) {
    JsonTree tree;
    int32_t errorCode = 0;
    const int32_t result = _ask_broker(call, query, nullptr, &errorCode, &tree);
    if (result != KXCC_OK) {
        return result;
    }
    if (errorCode != 0) {
        CLOUD_ERROR_IN(call, "errorcode:%d", errorCode);
        return errorCode;
    }
    int32_t status = 0;
    if (!cloud_json_int(tree.get(), "status", &status)) {
        CLOUD_ERROR_IN(call, "parse status error");
        return KXCC_ERROR_REPLY;
    }
    return status;
}

// The request may hold a plain password.
[[nodiscard]] SecretText _envelope(const char *request, int32_t timeoutMs, int32_t flag) {
    const SecretTree tree(cJSON_CreateObject());
    const bool built = cJSON_AddStringToObject(tree.get(), "request", request) != nullptr &&
                       cJSON_AddNumberToObject(tree.get(), "timeout", timeoutMs) != nullptr &&
                       cJSON_AddNumberToObject(tree.get(), "flag", flag) != nullptr;
    return cloud_json_print_secret(built ? tree.get() : nullptr);
}

// Reads the reply to a submitted request: its id, the broker's code, or the library's.
[[nodiscard]] int32_t _accepted_id(const char *call, const char *body, int32_t *id) {
    const JsonTree tree = cloud_json_parse(body);
    if (tree == nullptr) {
        CLOUD_ERROR_IN(call, "json parse error");
        return KXCC_ERROR_REPLY;
    }
    int32_t errorCode = 0;
    if (!cloud_json_int(tree.get(), "errorcode", &errorCode)) {
        CLOUD_ERROR_IN(call, "errorcode parse error");
        return KXCC_ERROR_REPLY;
    }
    if (errorCode != 0) {
        CLOUD_ERROR_IN(call, "send request async error");
        return errorCode;  // Contract: as it is; the caller takes a positive one for an id.
    }
    if (!cloud_json_int(tree.get(), "id", id)) {
        CLOUD_ERROR_IN(call, "id parse error");
        return KXCC_ERROR_REPLY;
    }
    CLOUD_DEBUG_IN(call, "send request success, got id:%d", *id);
    return KXCC_OK;
}

// Hands the polling for an accepted request to the callback thread.
[[nodiscard]] int32_t _poll_in_background(const char *call, int32_t id, int32_t timeoutMs,
                                          kxcc_callback callback) {
    CloudApi *const api = cloudApi;  // not the one from before the exchange: it may be gone
    const int32_t inserted = callback_insert(api, id, timeoutMs, callback);
    if (inserted != KXCC_OK) {
        CLOUD_DEBUG_IN(call, "callback thread insert error");
        return inserted;
    }
    if (cloud_thread_is_self(api->callbackThread)) {
        CLOUD_DEBUG_IN(call, "callback thread create & insert success");
        return KXCC_OK;  // a callback's own: the thread is the one that runs here
    }
    const int32_t created = callback_thread_create(api);
    if (created != KXCC_OK) {
        CLOUD_DEBUG_IN(call, "callback thread create error");
        return created;
    }
    CLOUD_DEBUG_IN(call, "callback thread create & insert success");
    return KXCC_OK;
}

[[nodiscard]] int32_t _submit(const char *call, Message message, const char *request, int32_t timeout,
                              int32_t flag, kxcc_callback callback) {
    int fd = -1;
    if (!_main_connection(call, &fd)) {
        return KXCC_ERROR_SEND;
    }
    const int32_t waitMs = timeout < 0 ? kDefaultTimeoutMs : timeout;
    const SecretText envelope = _envelope(request, waitMs, flag);
    if (envelope == nullptr) {
        CLOUD_DEBUG_IN(call, "create json error");
        return KXCC_ERROR_GENERAL;
    }
    uint32_t type = 0;
    HeapText body;
    int32_t result = _exchange(call, LogLevel::kDebug, fd, message, envelope.get(), &type, &body);
    if (result != KXCC_OK) {
        return result;
    }
    int32_t id = 0;
    result = _accepted_id(call, body.get(), &id);
    if (result == KXCC_OK && callback != nullptr) {
        result = _poll_in_background(call, id, waitMs, callback);
    }
    return result == KXCC_OK ? id : result;
}

// Reads the reply to a poll. On KXCC_OK *text is a heap copy of the answer.
[[nodiscard]] int32_t _answer(const char *call, const char *body, char **text) {
    const JsonTree tree = cloud_json_parse(body);
    if (tree == nullptr) {
        CLOUD_ERROR_IN(call, "parse json error, msg:%s", body);
        return KXCC_ERROR_REPLY;
    }
    int32_t id = 0;
    if (!cloud_json_int(tree.get(), "id", &id)) {
        CLOUD_ERROR_IN(call, "get id error");
        return KXCC_ERROR_REPLY;
    }
    // Contract: which id it is is not looked at; an answer without a code is a pending one.
    int32_t errorCode = 0;
    if (!cloud_json_int(tree.get(), "errorcode", &errorCode) || errorCode == KXCC_ERROR_PENDING) {
        CLOUD_DEBUG_IN(call, "response has not reach yet");
        return KXCC_ERROR_PENDING;
    }
    // Any other code, an error too, means that the request is over: the text tells how.
    const char *const response = cloud_json_text(tree.get(), "response");
    if (response == nullptr) {
        CLOUD_ERROR_IN(call, "parse response error");
        return KXCC_ERROR_REPLY;
    }
    *text = cloud_string_dup(response);
    if (*text == nullptr) {
        CLOUD_ERROR_IN(call, "string dup error");
        return KXCC_ERROR_GENERAL;
    }
    return KXCC_OK;
}

}  // namespace

int32_t kxcc_send_request_async(const char *request, int32_t timeout, int32_t flag, kxcc_callback callback) {
    return _submit(__func__, Message::kSubmit, request, timeout, flag, callback);
}

int32_t kxcc_send_request_async_noaccount(const char *request, int32_t timeout, int32_t flag,
                                          kxcc_callback callback) {
    return _submit(__func__, Message::kSubmitNoAccount, request, timeout, flag, callback);
}

int32_t kxcc_get_response(int32_t id, char **text) {
    CloudApi *const api = cloudApi;
    if (id <= 0 || api == nullptr) {
        CLOUD_DEBUG("parameter error");
        return KXCC_ERROR_PARAMETER;
    }
    ShortBody poll{};
    snprintf(poll.data(), poll.size(), "{\"id\":%d}", id);
    uint32_t type = 0;
    HeapText body;
    const int32_t result =
        _exchange(__func__, LogLevel::kError, api->clientFd, Message::kAsk, poll.data(), &type, &body);
    if (result != KXCC_OK) {
        return result;
    }
    if (type != static_cast<uint32_t>(Message::kAnswer) || body == nullptr) {
        CLOUD_ERROR("receive msg type error, type:%d, msg:%s", static_cast<int>(type),
                    body != nullptr ? body.get() : "(null)");
        return KXCC_ERROR_GENERAL;
    }
    return _answer(__func__, body.get(), text);
}

int32_t kxcc_send_request_sync(const char *request, int32_t timeout, int32_t flag, char **text) {
    const int32_t waitMs = timeout < 0 ? kDefaultTimeoutMs : timeout;
    const int32_t id = kxcc_send_request_async(request, waitMs, flag, nullptr);
    if (id < 0) {
        CLOUD_ERROR("send request async error");
        return id;
    }
    const int64_t startMs = cloud_time_ms();
    while (cloud_time_ms() - startMs < waitMs) {
        // Contract: a poll that fails, for whatever reason, counts as "not yet".
        if (kxcc_get_response(id, text) == KXCC_OK) {
            CLOUD_DEBUG("get response success");
            return KXCC_OK;
        }
        usleep(kPollIntervalMs * kUsPerMs);
    }
    return KXCC_ERROR_TIMEOUT;
}

int32_t kxcc_version() {
    return KXCC_VERSION_NUMBER;
}

int32_t kxcc_notify_cloud_brd(int32_t event) {
    ShortBody text{};
    snprintf(text.data(), text.size(), "{\"event\":%d}", event);
    JsonTree tree;
    int32_t errorCode = 0;
    const int32_t result = _ask_broker(__func__, Message::kEvent, text.data(), &errorCode, &tree);
    return result == KXCC_OK ? errorCode : result;
}

int32_t kxcc_get_link_status(void) {
    return _status(__func__, Message::kLinkStatus);
}

int32_t kxcc_get_logic_status(void) {
    return _status(__func__, Message::kLogicStatus);
}
