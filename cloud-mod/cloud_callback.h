// Requests with a callback: a pool of slots in the instance, and the thread that polls the broker for
// each pending one on a connection of its own, hands answers to callbacks, and hands a time-out
// answer to the callback of a request that outlived its time-out.
//
// A request's state is its slot: id 0 is free; pending from the insert until its callback has returned from
// its answer or time-out. A callback may submit requests of its own. Slots are read and written under
// callbackLock, which is never held during a callback or a transfer. One message is read in each round of the
// thread: with more than about ten requests pending at once, answers come late.
#pragma once

#include <kxcc.h>

#include <cstdint>

#include "cloud_instance.h"

/// Enters a request in the first slot that is free or whose request has outlived its time-out.
/// Contract: the callback of such a request is then not called any more.
/// @return 0; KXCC_ERROR_PARAMETER null instance, id 0 or null callback; KXCC_ERROR_GENERAL pool full.
[[nodiscard]] int32_t callback_insert(CloudApi *api, int32_t id, int32_t timeoutMs, kxcc_callback callback);

/// Makes sure that the callback thread runs.
/// Contract: a thread whose connection failed counts as running, so no other starts in this instance.
/// @return 0; KXCC_ERROR_PARAMETER null instance; KXCC_ERROR_GENERAL no thread.
[[nodiscard]] int32_t callback_thread_create(CloudApi *api);

/// Asks the thread to stop and waits for it: until each pending request has its answer or time-out.
/// @return 0 or KXCC_ERROR_PARAMETER (null instance).
int32_t callback_thread_destroy(CloudApi *api);

/// The thread. @param argument the instance. @return null, or (void *)1 when it could not connect.
void *callback_thread(void *argument);

/// Opens the thread's connection into `threadFd` (set also when the broker then refuses).
[[nodiscard]] bool callback_thread_connect_daemon(CloudApi *api);

// Interface only: nothing in the library calls what follows.

/// Prints the pool on standard output, whatever the log level. @param api  not null.
void callback_dump(CloudApi *api);
