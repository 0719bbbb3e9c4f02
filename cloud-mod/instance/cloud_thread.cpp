#include "cloud_thread.h"

#include <kxcc.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <ctime>

#include "cloud_ipc.h"
#include "cloud_signals.h"

namespace {

// For the cloud's text, which cJSON reads by recursion: 1000 levels, the most that it accepts, take up
// to 105 KiB. A C library's own choice (musl: 128 KiB) would leave a callback little beside that.
constexpr size_t kStackSizeMin = 256 * size_t{1024};

// Safe in a signal handler, as is all that it takes. (A thread_local variable is not: the library may have
// been loaded by dlopen, and then the first look at it allocates, or on musl the loading fails.)
[[nodiscard]] int32_t _own_id() {
    return static_cast<int32_t>(syscall(SYS_gettid));
}

[[nodiscard]] bool _create(pthread_t *handle, void *(*run)(void *), CloudApi *api) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    size_t size = 0;
    const bool enough = (pthread_attr_getstacksize(&attributes, &size) == 0 && size >= kStackSizeMin) ||
                        pthread_attr_setstacksize(&attributes, kStackSizeMin) == 0;
    const bool created = enough && pthread_create(handle, &attributes, run, api) == 0;
    pthread_attr_destroy(&attributes);
    return created;
}

[[nodiscard]] bool _is_here(const CloudThread &thread) {
    return thread.process != 0 && thread.process == getpid();
}

}  // namespace

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
    thread->id = 0;
}

void cloud_thread_mark_self(CloudThread *thread) {
    thread->id = _own_id();
}

bool cloud_thread_is_self(const CloudThread &thread) {
    return thread.id != 0 && thread.id == _own_id();
}

int32_t cloud_thread_send(int fd, uint32_t type, const char *text) {
    const int32_t result = cloud_ipc_send(fd, type, text);
    if (result != 0) {
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        const timespec atOnce{};
        sigtimedwait(&pipe, nullptr, &atOnce);
    }
    return result;
}
