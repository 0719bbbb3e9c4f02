// An error answer of the cloud is recorded in the log, nothing more. No state: safe in any thread.
#pragma once

/// Records an error answer.
/// @param errorCode  the code as text. @return 1; 0 when it is null (logged).
[[nodiscard]] int cloud_cloudServerErrMsgHandle(const char *errorCode);

/// The same for an answer with a "msg"; logs the outcome.
/// @param errMsg  the answer's "msg"; without one (null, logged) the code is not recorded.
void cloud_handleServerError(const char *errorCode, const char *errMsg);
