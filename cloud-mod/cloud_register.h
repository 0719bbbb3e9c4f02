// The program as the device's service: a thread with a connection of its own that announces itself
// to the broker, and then answers what the broker sends: it asks for the device's greeting to the
// cloud, hands over the cloud's answer to it, and passes requests from the cloud.
// The public call that starts it, kxcc_register_callback_v2(), is documented in kxcc.h.
//
// Handler and hooks run in the register thread. They are read under registerLock, never called under it.
#pragma once

#include <kxcc.h>

#include <cstdint>

struct CloudApi;

/// What the program registered; each may be null.
struct RegisterHooks {
    kxcc_request_handler handler;
    kxcc_hello_hooks hello;
};

/// Gives the instance the hooks that its thread shall call. Of the owning thread.
void register_set_hooks(CloudApi *api, const RegisterHooks &hooks);

/// Makes sure that the register thread runs. A thread that lost its broker, or that it did not let in, counts
/// as running until register_thread_destroy(); one whose registration the broker refused does not.
/// @return 0; KXCC_ERROR_PARAMETER null instance; KXCC_ERROR_GENERAL no thread.
[[nodiscard]] int32_t register_thread_create(CloudApi *api);

/// Asks the thread to stop, waits for it, and forgets the handler and the hooks.
/// @return 0 or KXCC_ERROR_PARAMETER (null instance).
int32_t register_thread_destroy(CloudApi *api);

/// The thread. @param argument the instance. @return null, or (void *)1 when it was not let in or refused.
void *register_thread(void *argument);

/// Opens the thread's connection into `registerFd`, which is set once the broker lets it in.
[[nodiscard]] bool register_thread_connect_daemon(CloudApi *api);

/// Handles one message of the broker with the handler and hooks of `cloudApi`.
/// @param fd    where answers go; a negative one is refused.
/// @param body  may be null.
void register_handle_dispatch(int fd, uint32_t type, const char *body);
