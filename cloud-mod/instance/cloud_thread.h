// The library's own threads: started deaf to the signals whose handlers take the instance down, and
// always joined.
//
// The teardown joins them, so it can never run in one of them: SIGPIPE, SIGINT and SIGTERM are
// blocked there, and a broken connection shows as the error of the send. Each has the system's default stack,
// of 256 KiB at least.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "cloud_log.h"

struct CloudApi;

/// A thread from its start until it is joined; all zero when there is none. Belongs to the thread
/// that owns the instance, but for `gaveUp`. A child made by fork() gets a copy of this, but no
/// thread: there it counts as none, and nothing waits for it.
struct CloudThread {
    pthread_t handle;
    pid_t process;                ///< that started it; 0: there is none to join
    std::atomic<int32_t> gaveUp;  ///< set to 1 by the thread: it ends and counts as not running
    std::atomic<int32_t> id;      ///< the kernel's, set by the thread; 0 until then and once it is joined
};

/// Does the thread count as running? Yes from its start until it is joined or has given up.
[[nodiscard]] bool cloud_thread_runs(const CloudThread &thread);

/// Is it a thread of the parent, of which fork() has copied this record only?
[[nodiscard]] bool cloud_thread_is_inherited(const CloudThread &thread);

/// What differs between the starts of the two threads.
struct ThreadStart {
    void *(*run)(void *);  ///< gets the instance; starts with the signals blocked
    const char *name;      ///< begins the log's "<name> thread already exist", "<name> thread create success"
    const char *failure;   ///< logged when no thread can be started
};

/// Makes sure that the thread runs. One that gave up before is joined first.
/// @param site  whose call it is: all is logged in that name.
/// @return 0 or KXCC_ERROR_GENERAL when no thread can be started.
[[nodiscard]] int32_t cloud_thread_ensure(CloudThread *thread, CloudApi *api, const ThreadStart &start,
                                          const LogSite &site);

/// Waits until the thread has ended; does nothing when there is none.
void cloud_thread_join(CloudThread *thread);

/// Notes the calling thread as this one: the first thing it does.
void cloud_thread_mark_self(CloudThread *thread);

/// Is the caller this thread? Safe in a signal handler.
[[nodiscard]] bool cloud_thread_is_self(const CloudThread &thread);

/// Sends a message from one of the library's own threads. A SIGPIPE that it raised and that the
/// thread blocks is taken back, so that it does not strike later, should a callback unblock it.
/// @return as cloud_ipc_send().
[[nodiscard]] int32_t cloud_thread_send(int fd, uint32_t type, const char *text);
