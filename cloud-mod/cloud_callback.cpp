#include "cloud_callback.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <span>

#include "cloud_accept.h"
#include "cloud_ipc.h"
#include "cloud_json.h"
#include "cloud_log.h"
#include "cloud_owner.h"
#include "cloud_signals.h"
#include "cloud_time.h"
#include "cloud_wire.h"

namespace {

constexpr char kLogUnit[] = "cloud_callback";
constexpr char kTimeoutAnswer[] = R"({"error_code":-3002,"msg":"Request timeout"})";
static_assert(KXCC_ERROR_TIMEOUT == -3002);
constexpr int kNoDescriptor = 0;
constexpr char kThread[] = "callback_thread";  // its helpers log in its name

[[nodiscard]] std::span<CallbackSlot> _slots(const CloudApi *api) {
    return {api->cb, static_cast<size_t>(api->cbMaxNum)};
}

[[nodiscard]] bool _outlived(const CallbackSlot &slot, int64_t nowMs) {
    return nowMs - slot.reqTime > slot.timeout;
}

// Enters the request in a usable slot. Returns whether there was one.
[[nodiscard]] bool _enter(CloudApi *api, int32_t id, int32_t timeoutMs, kxcc_callback callback) {
    const SignalsBlocked blocked;
    const LockHeld lock(&api->callbackLock);
    const int64_t nowMs = cloud_time_ms();
    const std::span<CallbackSlot> slots = _slots(api);
    const auto usable = std::ranges::find_if(
        slots, [nowMs](const CallbackSlot &slot) { return slot.id == 0 || _outlived(slot, nowMs); });
    if (usable == slots.end()) {
        return false;
    }
    *usable = CallbackSlot{id, timeoutMs, nowMs, nowMs, callback};
    return true;
}

enum class Due { kNothing, kFree, kTimeout, kPoll };

// Decides what the slot needs now and writes that down in it, so that the lock need not be held while
// it is done. A slot whose time is over is freed when its callback has run.
[[nodiscard]] Due _due(CloudApi *api, CallbackSlot *slot, CallbackSlot *copy) {
    const LockHeld lock(&api->callbackLock);
    *copy = *slot;
    if (slot->id == 0) {
        return Due::kFree;
    }
    const int64_t nowMs = cloud_time_ms();
    if (_outlived(*slot, nowMs)) {
        return Due::kTimeout;
    }
    if (nowMs - slot->lastGetResTime < kPollIntervalMs) {
        return Due::kNothing;
    }
    slot->lastGetResTime = nowMs;
    return Due::kPoll;
}

void _poll(CloudApi *api, int32_t id) {
    std::array<char, kShortBodySize> text{};
    snprintf(text.data(), text.size(), "{\"id\":%d}", id);
    if (cloud_thread_send(api->threadFd, static_cast<uint32_t>(Message::kAsk), text.data()) != KXCC_OK) {
        CLOUD_ERROR_IN(kThread, "ipc send error");
    }
}

// Calls back, then frees the slot; unless an insert has given it to a later request, which may be the
// callback's own.
void _finish(CloudApi *api, const CallbackSlot &request, const char *answer) {
    request.callback(request.id, answer);
    const LockHeld lock(&api->callbackLock);
    const std::span<CallbackSlot> slots = _slots(api);
    const auto found = std::ranges::find_if(slots, [&request](const CallbackSlot &slot) {
        return slot.id == request.id && slot.reqTime == request.reqTime && slot.callback == request.callback;
    });
    if (found != slots.end()) {
        found->id = 0;
    }
}

// Times out and polls what is due. Returns whether every slot is free.
[[nodiscard]] bool _scan(CloudApi *api) {
    int32_t freeSlots = 0;
    for (CallbackSlot &slot : _slots(api)) {
        CallbackSlot copy{};
        switch (_due(api, &slot, &copy)) {
            case Due::kFree:
                ++freeSlots;
                break;
            case Due::kTimeout:
                _finish(api, copy, kTimeoutAnswer);
                break;  // counted as free in the next round, when a request of the callback's own is seen as
                        // well
            case Due::kPoll:
                _poll(api, copy.id);
                break;
            case Due::kNothing:
                break;
        }
    }
    return freeSlots == api->cbMaxNum;
}

// A pending request's slot as it stands; all zero when there is no such request.
[[nodiscard]] CallbackSlot _pending(CloudApi *api, int32_t id) {
    const LockHeld lock(&api->callbackLock);
    const std::span<CallbackSlot> slots = _slots(api);
    const auto found = std::ranges::find(slots, id, &CallbackSlot::id);
    return id != 0 && found != slots.end() ? *found : CallbackSlot{};
}

// Hands an answer to the callback that waits for it. Whatever cannot be delivered is dropped: its
// request is polled again, or times out.
void _deliver(CloudApi *api, const char *body) {
    const JsonTree tree = cloud_json_parse(body);
    if (tree == nullptr) {
        CLOUD_ERROR_IN(kThread, "parse json error, msg:%s", body);
        return;
    }
    int32_t id = 0;
    if (!cloud_json_int(tree.get(), "id", &id)) {
        CLOUD_ERROR_IN(kThread, "get id error");
        return;
    }
    int32_t errorCode = 0;
    if (!cloud_json_int(tree.get(), "errorcode", &errorCode) || errorCode == KXCC_ERROR_PENDING) {
        CLOUD_DEBUG_IN(kThread, "response has not reach yet");
        return;
    }
    const char *const response = cloud_json_text(tree.get(), "response");
    const CallbackSlot request = _pending(api, id);
    if (request.callback == nullptr) {
        CLOUD_ERROR_IN(kThread, "no such request, id:%d, msg:%s", id, body);
        return;
    }
    if (response == nullptr) {
        CLOUD_DEBUG_IN(kThread, "get response error");
        return;
    }
    _finish(api, request, response);
}

void _receive(CloudApi *api) {
    const int fd = api->threadFd;
    const int ready = cloud_ipc_wait(fd, kLoopWaitMs);
    if (ready <= 0) {
        if (ready < 0 && errno != EINTR) {
            CLOUD_DEBUG_IN(kThread, "select error");
        }
        return;
    }
    uint32_t type = 0;
    char *received = nullptr;
    const int32_t result = cloud_ipc_recv(fd, &type, &received);
    const HeapText body(received);
    if (result == KXCC_ERROR_RECEIVE) {
        CLOUD_ERROR_IN(kThread, "cloud-brd close ipc");  // Contract: the thread goes on without a broker.
    } else if (result != KXCC_OK) {
        CLOUD_ERROR_IN(kThread, "ipc recv error");
    } else if (type != static_cast<uint32_t>(Message::kAnswer) || body == nullptr) {
        CLOUD_ERROR_IN(kThread, "receive msg type error, type:%d, msg:%s", static_cast<int>(type),
                       body != nullptr ? body.get() : "(null)");
    } else {
        _deliver(api, body.get());
    }
}

}  // namespace

int32_t callback_insert(CloudApi *api, int32_t id, int32_t timeoutMs, kxcc_callback callback) {
    if (api == nullptr || id == 0 || callback == nullptr) {
        CLOUD_DEBUG("parameter error");
        return KXCC_ERROR_PARAMETER;
    }
    if (!_enter(api, id, timeoutMs, callback)) {
        CLOUD_DEBUG("callback pool full, pool slot:%d", api->cbMaxNum);
        CLOUD_DEBUG("callback insert error");
        return KXCC_ERROR_GENERAL;
    }
    CLOUD_DEBUG("callback insert success");
    return KXCC_OK;
}

int32_t callback_thread_create(CloudApi *api) {
    if (api == nullptr) {
        CLOUD_ERROR("parameter error");
        return KXCC_ERROR_PARAMETER;
    }
    return cloud_thread_ensure(&api->callbackThread, api,
                               {callback_thread, "callback", "thread create error"}, CLOUD_HERE);
}

int32_t callback_thread_destroy(CloudApi *api) {
    CLOUD_DEBUG("will destroy callback thread");
    if (api == nullptr) {
        CLOUD_ERROR("parameter error");
        return KXCC_ERROR_PARAMETER;
    }
    if (!cloud_thread_runs(api->callbackThread)) {
        CLOUD_DEBUG("callback thread already destroyed");
        return KXCC_OK;
    }
    api->callbackStop = 1;
    cloud_thread_join(&api->callbackThread);
    CLOUD_DEBUG("callback thread has been canceled");
    api->callbackStop = 0;
    api->threadFd = kNoDescriptor;
    return KXCC_OK;
}

void *callback_thread(void *argument) {
    auto *const api = static_cast<CloudApi *>(argument);
    cloud_thread_mark_self(&api->callbackThread);
    if (!callback_thread_connect_daemon(api)) {
        // Contract: as in a failed start of the instance also 0, when nothing was connected.
        UniqueFd(api->threadFd.exchange(kNoDescriptor)).reset();
        CLOUD_ERROR("callback thread connect daemon error");
        return reinterpret_cast<void *>(1);
    }
    CLOUD_DEBUG("callback thread loop start");
    for (;;) {
        usleep(kLoopSleepMs * kUsPerMs);
        // Read before the scan: it then sees every request that was inserted before the stop.
        const bool stopping = api->callbackStop != 0;
        if (_scan(api) && stopping) {
            UniqueFd(api->threadFd.exchange(kNoDescriptor)).reset();
            return nullptr;
        }
        _receive(api);
    }
}

bool callback_thread_connect_daemon(CloudApi *api) {
    const int fd = cloud_ipc_client_init(kBrokerPath);
    if (fd < 0) {
        CLOUD_ERROR("ipc client init error");
        return false;
    }
    api->threadFd = fd;
    CLOUD_DEBUG("api callback sockfd:%d", fd);
    if (!cloud_api_accept(fd, CLOUD_HERE, "errorcode")) {
        return false;
    }
    CLOUD_DEBUG("thread connect daemon success");
    return true;
}

void callback_dump(CloudApi *api) {
    constexpr char kRule[] = "--------------------------------------------------";
    CLOUD_DEBUG("callback dump");
    cloud_log_text("%s\n    id      timeout      reqTime     lastGetResTime    callback    ", kRule);
    const SignalsBlocked blocked;
    const LockHeld lock(&api->callbackLock);
    for (const CallbackSlot &slot : _slots(api)) {
        cloud_log_text(" %5d    %14lld %14lld %14lld    %12p", slot.id, static_cast<long long>(slot.timeout),
                       static_cast<long long>(slot.reqTime), static_cast<long long>(slot.lastGetResTime),
                       reinterpret_cast<void *>(slot.callback));
    }
    cloud_log_text("%s", kRule);
}
