// The library's one instance: its connection to the broker, and the state of its two background
// threads (cloud_callback.h, cloud_register.h).
//
// Threads: the instance belongs to one thread of the program, which makes it, uses it and tears it
// down. Beside each member that a background thread sees as well stands what guards it.
// Signals: SIGPIPE tears the instance down inside the call that it interrupts. So a call works on its
// own copy of the descriptor and looks at `cloudApi` afresh after sending or receiving.
#pragma once

#include <kxcc.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "cloud_log.h"
#include "cloud_thread.h"

struct CallbackSlot;

struct CloudApi {
    pthread_mutex_t apiLock;
    int32_t status;    // stays 0
    int32_t clientFd;  // main connection; 0 is also "none"

    pthread_mutex_t callbackLock;
    CloudThread callbackThread;
    std::atomic<int32_t> threadFd;  // the callback thread's own connection; 0: none
    int32_t cbMaxNum;               // fixed before a thread starts
    CallbackSlot *cb;               // cbMaxNum slots, their content under callbackLock
    std::atomic<int32_t> callbackStop;

    pthread_mutex_t registerLock;
    CloudThread registerThread;
    std::atomic<int32_t> registerFd;  // the register thread's own connection; 0: none
    std::atomic<int32_t> registered;  // 1 once the broker has consented
    kxcc_request_handler handler;     // these two under registerLock
    kxcc_hello_hooks hooks;
    std::atomic<int32_t> registerStop;
};

/// The instance, null when there is none. cloud_api_init() does not set it, its callers do;
/// cloud_api_destroy() resets it. Atomic because a signal handler changes it under a running call.
extern constinit std::atomic<CloudApi *>
    cloudApi;  // NOLINT(bugprone-dynamic-static-initializers): a declaration

/// Returns `cloudApi` when it is set; else makes an instance: connects, waits for the broker's
/// consent, installs the signal handlers and registers cloud_api_destroy() with atexit().
/// @return the instance, or null (logged). A failed connection closes descriptor 0: the instance's
///         descriptor is still 0 then and is closed in any case.
[[nodiscard]] CloudApi *cloud_api_init();

/// Tears the instance down: joins the callback thread, which waits for its pending requests, and the
/// register thread, closes the connection, frees everything. Harmless when there is no instance, when
/// a teardown runs already (a signal interrupted it), and in a background thread, which cannot wait
/// for itself: it is refused there. In a child made by fork() it gives up the child's copies only.
void cloud_api_destroy();

/// Prints the instance on standard output, whatever the log level.
void cloud_api_dump(CloudApi *api);

/// SIGINT, SIGTERM: teardown, then _exit(-1): status 255 without exit handlers. During a teardown,
/// also that of another handler: _exit(-1) at once. They strike anywhere, inside malloc() too: so this
/// teardown leaves the memory to the end of the process. A background thread that needs the lock which
/// the interrupted call holds (the heap's, standard output's) is waited for until the second signal.
void cloud_api_sigint_handle(int number);

/// SIGPIPE: teardown; the interrupted write fails and the program goes on.
void cloud_api_sigpipe_handle(int number);

/// Receives the broker's greeting on a new connection.
/// @param site  whose connection it is: a failure is logged in that name.
/// @param code  what the log calls the broker's error code there.
/// @return whether the broker lets this connection in.
[[nodiscard]] bool cloud_api_accept(int fd, const LogSite &site, const char *code);
