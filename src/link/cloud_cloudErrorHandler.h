// What to do about an error answer of the cloud: it is recorded in the log, nothing more.
#pragma once

/// Records an error answer.
/// @param errorCode  the code as text. @return 1; 0 when it is null (logged).
[[nodiscard]] int cloud_cloudServerErrMsgHandle(const char *errorCode);

/// The same for an answer, which counts as an error message only when it has a text; logs the outcome.
/// @param errMsg  the answer's "msg"; may be null (logged).
void cloud_handleServerError(const char *errorCode, const char *errMsg);
