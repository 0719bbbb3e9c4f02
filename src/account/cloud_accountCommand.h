// The exchange behind every request command: format, send, parse, and on success bring the device's
// state in line.
#pragma once

#include <cstdint>

#include "cloud_secret.h"

namespace cloud_account {

using SendRequest = int32_t (*)(const char *request, int32_t timeoutMs, uint32_t kind, char **response);
using FormatRequest = SecretText (*)(const char *arg1, const char *arg2);
using ParseResponse = int32_t (*)(const char *response, const char *arg1);
using OnSuccess = void (*)(const char *arg1, const char *arg2);

/// Runs one exchange and writes its result to "/tmp/cloud.error".
/// @param timeoutMs  milliseconds to wait for the answer.
/// @param format      makes the request; null result: nothing is sent.
/// @param parse       turns the answer, which may be null, into the result; 0 is success.
/// @param onSuccess   may be null.
/// @return the result: 0; -1; a negative code of `send`; what `parse` returned.
int32_t _do_message(const char *arg1, const char *arg2, int32_t timeoutMs, SendRequest send,
                    FormatRequest format, ParseResponse parse, OnSuccess onSuccess);

}  // namespace cloud_account
