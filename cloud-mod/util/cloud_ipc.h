// Messages over a UNIX stream socket: a header of 8 bytes (magic A1 B2, type, body length, all
// big-endian), then the body, JSON text without its NUL.
//
// No state: safe from several threads on different descriptors, never two on the same one.
// A failure is logged here and returned as a code of kxcc.h; nothing is retried (an interrupting
// signal fails the call too), and no descriptor is closed but by the two init functions.
#pragma once

#include <cstdint>

/// Connects to the socket at `path`.
/// @return the descriptor (>= 0, close-on-exec, the caller's to close); KXCC_ERROR_GENERAL no socket;
///         KXCC_ERROR_SEND not connected, or the path does not fit a socket address.
[[nodiscard]] int cloud_ipc_client_init(const char *path);

/// Sends one message; header and body leave in one system call unless the socket takes only a part.
/// SIGPIPE is not suppressed: its handler may run inside this call.
/// @param type  its low 16 bits are sent.
/// @param text  body, or null for none.
/// @return 0 or KXCC_ERROR_SEND.
[[nodiscard]] int32_t cloud_ipc_send(int fd, uint32_t type, const char *text);

/// Receives one message; waits at most 3 seconds each time that bytes are missing.
/// @param type  out: set once the header is good.
/// @param body  out: heap text with NUL, the caller's to free(), after some failures too; untouched
///              when the message has no body, so set it to null before.
/// @return 0; KXCC_ERROR_RECEIVE no whole header came (the peer closed, an error, or the time-out);
///         KXCC_ERROR_GENERAL wrong magic, no memory for the body, or a body shorter than announced.
[[nodiscard]] int32_t cloud_ipc_recv(int fd, uint32_t *type, char **body);

/// Waits until `fd` can be read without blocking, which includes its end.
/// @return 1; 0 not within `timeoutMs` milliseconds; -1 with errno.
[[nodiscard]] int cloud_ipc_wait(int fd, int timeoutMs);

// Interface only: nothing in the library calls what follows.

/// Binds a socket to `path`, which must not exist, and listens.
/// @return the descriptor (>= 0, close-on-exec, the caller's to close) or KXCC_ERROR_SERVER.
[[nodiscard]] int cloud_ipc_server_init(const char *path);
