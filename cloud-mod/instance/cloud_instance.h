// The library's one instance: its connection to the broker, and the state of its two background
// threads (cloud_callback.h, cloud_register.h).
//
// Threads: the instance belongs to one thread of the program, which makes it, uses it and tears it
// down. Beside each member that a background thread sees as well stands what guards it.
// Signals: SIGPIPE tears the instance down inside the call that it interrupts. So a call works on its
// own copy of the descriptor and looks at `cloudApi` afresh after sending or receiving.
#pragma once

#include <kxcc.h>

#include <atomic>
#include <cstdint>

#include "cloud_owner.h"
#include "cloud_thread.h"

struct CallbackSlot {
    int32_t id;              // 0: free
    int64_t timeout;         // ms
    int64_t reqTime;         // cloud_time_ms() of the insert
    int64_t lastGetResTime;  // cloud_time_ms() of the last poll, of the insert before the first
    kxcc_callback callback;
};

struct CloudApi {
    Mutex apiLock;
    int32_t status;    // stays 0
    int32_t clientFd;  // main connection; 0 is also "none"

    Mutex callbackLock;
    CloudThread callbackThread;
    std::atomic<int32_t> threadFd;  // the callback thread's own connection; 0: none
    int32_t cbMaxNum;               // fixed before a thread starts
    CallbackSlot *cb CLOUD_THREAD(pt_guarded_by(callbackLock));  // cbMaxNum slots
    std::atomic<int32_t> callbackStop;

    Mutex registerLock;
    CloudThread registerThread;
    std::atomic<int32_t> registerFd;  // the register thread's own connection; 0: none
    std::atomic<int32_t> registered;  // 1 once the broker has consented
    kxcc_request_handler handler CLOUD_THREAD(guarded_by(registerLock));
    kxcc_hello_hooks hooks CLOUD_THREAD(guarded_by(registerLock));
    std::atomic<int32_t> registerStop;
};

/// The instance, null when there is none. Contract: cloud_api_init() does not set it, its callers do;
/// cloud_api_destroy() resets it. Atomic because a signal handler changes it under a running call.
extern constinit std::atomic<CloudApi *>
    cloudApi;  // NOLINT(bugprone-dynamic-static-initializers): a declaration
