// The program's way to the cloud: which request path to take, the link test, the connection mode.
// All calls run on the caller's thread and block.
#pragma once

#include <cstdint>

#include "kxcc.h"

/// How long requests to the cloud wait for their answer.
inline constexpr int32_t kAnswerWaitMs = KXCC_DEFAULT_TIMEOUT_MS;

/// What all requests of this program hand to the client library as `kind`.
inline constexpr uint32_t kRequestKind = 1;

/// Connection modes.
inline constexpr int32_t kModeNoAccount = 0;
inline constexpr int32_t kModeAccount = 1;

/// Results of cloud_checkSslPath.
inline constexpr int kPathBad = 1;
inline constexpr int kPathGood = 2;

/// Sends a request on the path that the broker's mode asks for and waits for the answer.
/// @param request      JSON-RPC text; stays the caller's.
/// @param timeoutMs    milliseconds to wait for an answer (for each of the three attempts, without an
///                     account).
/// @param kind         handed to the client library as it is.
/// @param responseOut  receives the answer on 0, a heap text that the caller releases with free().
/// @return 0; -1000 for a null request; -3002 without an answer in time; a negative code of the library.
[[nodiscard]] int32_t cloud_wrap_send_request_sync(const char *request, int32_t timeoutMs, uint32_t kind,
                                                   char **responseOut);

/// The same on the path without an account: up to three submissions, each polled timeoutMs / 500 + 1 times
/// with 500 ms after each poll (not at all for a negative time-out).
/// Contract: the time is counted in these steps, not measured; the answers to earlier submissions are not
/// asked for any more.
[[nodiscard]] int32_t cloud_wrap_send_request_sync_noaccount(const char *request, int32_t timeoutMs,
                                                             uint32_t kind, char **responseOut);

/// The same on the account path, whatever the broker's mode.
[[nodiscard]] int32_t cloud_wrap_send_request_sync_account(const char *request, int32_t timeoutMs,
                                                           uint32_t kind, char **responseOut);

/// Switches the broker's connection mode: 1 account mode, anything else no account.
/// @return what the broker answers.
int32_t cloud_wrap_set_connection_mode(int32_t mode);

// Interface only: no command calls what follows.

/// Sends a request that no cloud serves and looks for the cloud's own refusal of it.
/// @param timeoutS  seconds to wait for it.
/// @return 1 when it came; 0 otherwise (Contract: also for an answer of success).
[[nodiscard]] int testCloudSrvConnection(int32_t timeoutS);

/// Checks the broker's link to the cloud and asks for a reconnect when it is down or fails the link test.
/// Contract: a link that comes up in here is not tested.
/// @param event  broker event that asks for the reconnect.
/// @param waitS  number of one-second waits for the link, and seconds for the link test.
/// @return kPathGood when the link is up; kPathBad otherwise.
[[nodiscard]] int cloud_checkSslPath(int32_t event, int32_t waitS);
