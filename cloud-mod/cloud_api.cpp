#include "cloud_api.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <type_traits>
#include <utility>

#include "cloud_accept.h"
#include "cloud_callback.h"
#include "cloud_ipc.h"
#include "cloud_log.h"
#include "cloud_owner.h"
#include "cloud_register.h"
#include "cloud_wire.h"

namespace {

constexpr char kLogUnit[] = "cloud_api";
// Contract: no version, always this stamp, and the line that shows them is an error line.
constexpr char kVersion[] = "";
constexpr char kBuildStamp[] = "20171220_114854";
constexpr int kSignalExitStatus = -1;

// The helpers log in the name of the call that they work for.
constexpr char kInit[] = "cloud_api_init";
constexpr char kDestroy[] = "cloud_api_destroy";

// 1 while a teardown runs: a signal that strikes in it must not begin another.
constinit std::atomic<int> l_destroying{0};

static_assert(std::is_trivially_destructible_v<CloudApi>);  // so its memory is all there is to give back

void _release(CloudApi *api) {
    const std::unique_ptr<CloudApi, Releaser<free>> memory(api);
    const std::unique_ptr<CallbackSlot, Releaser<free>> slots(api->cb);
}
using ApiOwner = std::unique_ptr<CloudApi, Releaser<_release>>;

[[nodiscard]] ApiOwner _make_zeroed() {
    void *const memory = malloc(sizeof(CloudApi));
    return ApiOwner(memory != nullptr ? new (memory) CloudApi{} : nullptr);
}

[[nodiscard]] bool _connect(CloudApi *api) {
    const int fd = cloud_ipc_client_init(kBrokerPath);
    if (fd < 0) {
        CLOUD_ERROR_IN(kInit, "ipc client init error");
        return false;
    }
    api->clientFd = fd;
    CLOUD_DEBUG_IN(kInit, "api sockfd:%d", fd);

    // Contract: spelled so here and in the register thread, and right in the callback thread.
    if (!cloud_api_accept(fd, CLOUD_HERE_IN(kInit), "errocode")) {
        return false;
    }
    CLOUD_DEBUG_IN(kInit, "daemon accept success");
    return true;
}

[[nodiscard]] bool _prepare_pool(CloudApi *api) {
    pthread_mutex_init(&api->apiLock.handle, nullptr);
    pthread_mutex_init(&api->callbackLock.handle, nullptr);
    pthread_mutex_init(&api->registerLock.handle, nullptr);
    api->cbMaxNum = kCallbackSlots;
    api->cb = static_cast<CallbackSlot *>(calloc(static_cast<size_t>(api->cbMaxNum), sizeof(CallbackSlot)));
    if (api->cb == nullptr) {
        CLOUD_ERROR_IN(kInit, "callback init error");
        return false;
    }
    return true;
}

void _install_hooks() {
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGPIPE);
    // SIGTERM and SIGINT stay open in each handler: whoever asks a second time, while a teardown still
    // waits for callbacks, gets the end at once.
    action.sa_flags = SA_RESTART | SA_NODEFER;
    action.sa_handler = cloud_api_sigint_handle;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    action.sa_handler = cloud_api_sigpipe_handle;
    sigaction(SIGPIPE, &action, nullptr);
    atexit(cloud_api_destroy);
}

enum class Memory { kFreed, kLeft };

void _tear_down(CloudApi *api, Memory memory) {
    const bool inherited =
        cloud_thread_is_inherited(api->callbackThread) || cloud_thread_is_inherited(api->registerThread);
    callback_thread_destroy(api);
    register_thread_destroy(api);
    if (api->clientFd != 0) {
        UniqueFd(std::exchange(api->clientFd, 0)).reset();
    }
    cloudApi = nullptr;
    if (memory == Memory::kLeft) {
        return;
    }
    const ApiOwner owner(api);
    if (!inherited) {  // a lock that the parent's thread held at the fork is not to be destroyed
        pthread_mutex_destroy(&api->apiLock.handle);
        pthread_mutex_destroy(&api->callbackLock.handle);
        pthread_mutex_destroy(&api->registerLock.handle);
    }
}

void _destroy(Memory memory) {
    CLOUD_DEBUG_IN(kDestroy, "begin destroy cloud api");
    const CloudApi *const asked = cloudApi;
    if (asked != nullptr &&
        (cloud_thread_is_self(asked->callbackThread) || cloud_thread_is_self(asked->registerThread))) {
        CLOUD_ERROR_IN(kDestroy, "a background thread cannot destroy the api");
        return;
    }
    if (l_destroying.exchange(1) != 0) {
        CLOUD_DEBUG_IN(kDestroy, "cloud api already destroyed");
        return;
    }
    CloudApi *const api = cloudApi;  // afresh: a signal may have taken it away before the mark above
    if (api != nullptr) {
        _tear_down(api, memory);
        CLOUD_DEBUG_IN(kDestroy, "end destroy cloud api");
    } else {
        CLOUD_DEBUG_IN(kDestroy, "cloud api already destroyed");
    }
    l_destroying = 0;
}

}  // namespace

CloudApi *cloud_api_init() {
    CLOUD_ERROR("cloud-sdk version: %s, build_time:%s", kVersion, kBuildStamp);
    if (CloudApi *const existing = cloudApi; existing != nullptr) {
        CLOUD_DEBUG("api already exist");
        return existing;
    }
    ApiOwner api = _make_zeroed();
    if (api == nullptr) {
        CLOUD_ERROR("malloc api error");
        return nullptr;
    }
    if (!_connect(api.get()) || !_prepare_pool(api.get())) {
        UniqueFd(api->clientFd).reset();  // Contract: also 0, which it is when nothing was connected.
        api.reset();
        CLOUD_DEBUG("api init error");
        return nullptr;
    }
    _install_hooks();
    CLOUD_DEBUG("api init success");
    return api.release();
}

void cloud_api_destroy() {
    _destroy(Memory::kFreed);
}

void cloud_api_dump(CloudApi *api) {
    CLOUD_DEBUG("cloud api dump");
    // Contract: 57 dashes before, 56 after.
    cloud_log_text("---------------------------------------------------------");
    cloud_log_text("    status :    %d", api->status);
    cloud_log_text("    clientFd:   %d", api->clientFd);
    cloud_log_text("    threadFd:   %d", api->threadFd.load());
    cloud_log_text("    cbMaxNum:   %d", api->cbMaxNum);
    for (int i = 0; i < api->cbMaxNum; ++i) {
        cloud_log_text("        cb[%d]:   %p", i, static_cast<void *>(&api->cb[i]));
    }
    cloud_log_text("--------------------------------------------------------");
}

void cloud_api_sigint_handle(int number) {
    CLOUD_DEBUG("receive sigint:%d", number);
    _destroy(Memory::kLeft);
    _exit(kSignalExitStatus);
}

void cloud_api_sigpipe_handle(int number) {
    const int saved = errno;  // the interrupted code's own
    CLOUD_DEBUG("receive sigpipe:%d", number);
    cloud_api_destroy();
    errno = saved;
}
