#include "cloud_thread.h"

#include <kxcc.h>
#include <unistd.h>

#include <ctime>

#include "cloud_ipc.h"

namespace {

// For the cloud's text, which cJSON reads by recursion: 1000 levels, the most that it accepts, take up
// to 105 KiB. A C library's own choice (musl: 128 KiB) would leave a callback little beside that.
constexpr size_t kStackSize = 256 * size_t{1024};

// Of the initial-exec model, since a handler asks: the first look at another one may allocate.
[[gnu::tls_model("initial-exec")]] constinit thread_local bool l_own = false;

void _add_signals(sigset_t *set) {
    sigemptyset(set);
    sigaddset(set, SIGPIPE);
    sigaddset(set, SIGINT);
    sigaddset(set, SIGTERM);
}

[[nodiscard]] bool _create(pthread_t *handle, void *(*run)(void *), CloudApi *api) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    const bool created = pthread_attr_setstacksize(&attributes, kStackSize) == 0 &&
                         pthread_create(handle, &attributes, run, api) == 0;
    pthread_attr_destroy(&attributes);
    return created;
}

[[nodiscard]] bool _is_here(const CloudThread &thread) {
    return thread.process == getpid();
}

}  // namespace

SignalsBlocked::SignalsBlocked() {
    sigset_t set;
    _add_signals(&set);
    pthread_sigmask(SIG_BLOCK, &set, &before_);
}

SignalsBlocked::~SignalsBlocked() {
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool cloud_thread_runs(const CloudThread &thread) {
    return _is_here(thread) && thread.gaveUp == 0;
}

bool cloud_thread_is_inherited(const CloudThread &thread) {
    return thread.process != 0 && !_is_here(thread);
}

int32_t cloud_thread_ensure(CloudThread *thread, CloudApi *api, const ThreadStart &start,
                            const LogSite &site) {
    if (cloud_thread_runs(*thread)) {
        CLOUD_LOG_FOR(LogLevel::kDebug, site, "%s thread already exist, tid:%u", start.name,
                      static_cast<unsigned>(thread->handle));
        return KXCC_OK;
    }
    cloud_thread_join(thread);
    {
        const SignalsBlocked inherited;  // by the new thread
        thread->process = _create(&thread->handle, start.run, api) ? getpid() : 0;
    }
    if (thread->process == 0) {
        CLOUD_LOG_FOR(LogLevel::kDebug, site, "%s", start.failure);
        return KXCC_ERROR_GENERAL;
    }
    CLOUD_LOG_FOR(LogLevel::kDebug, site, "%s thread create success", start.name);
    return KXCC_OK;
}

void cloud_thread_join(CloudThread *thread) {
    if (_is_here(*thread)) {
        pthread_join(thread->handle, nullptr);
    }
    thread->process = 0;
    thread->gaveUp = 0;
}

void cloud_thread_mark_own() {
    l_own = true;
}

bool cloud_thread_is_own() {
    return l_own;
}

int32_t cloud_thread_send(int fd, uint32_t type, const char *text) {
    const int32_t result = cloud_ipc_send(fd, type, text);
    if (result != 0) {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        const timespec at_once{};
        sigtimedwait(&pipe, nullptr, &at_once);
    }
    return result;
}
