// Answers of the cloud to account commands, turned into the command's result.
//
// Every parser takes the answer text (null when there is none) and the command's first argument, and
// returns the answer's error code, 0 being success; -1 when the answer lacks what it must hold (logged).
#pragma once

#include <cstdint>

namespace cloud_account {

/// A command's result when it is refused here, or when its answer is none.
inline constexpr int32_t kFailed = -1;

// These four read the error code and nothing else.
[[nodiscard]] int32_t _parse_binddev_result(const char *response, const char *unused);
[[nodiscard]] int32_t _parse_unbinddev_result(const char *response, const char *unused);
[[nodiscard]] int32_t _parse_update_alias_result(const char *response, const char *unused);
[[nodiscard]] int32_t _parse_rmuser_result(const char *response, const char *unused);
/// 0 for every answer with an error code, whatever it is: the cloud was reached.
[[nodiscard]] int32_t _parse_online_result(const char *response, const char *unused);
/// Stores role and user name of a successful login; _login_was_stored tells whether that reached the store.
[[nodiscard]] int32_t _parse_login_result(const char *response, const char *user);
/// Whether the login of this process reached the store.
[[nodiscard]] bool _login_was_stored();
/// Writes "/tmp/cloud.token" (token and address together cut to 511 characters) and starts the script that
/// deletes it when the token expires; an expiry too long for the script's command starts none (logged). 0 for
/// every complete answer, also when the file could not be written.
[[nodiscard]] int32_t _parse_token_result(const char *response, const char *unused);
/// Caches any JSON answer under the method's name, where that can name a file; its path is cut to 255
/// characters. 0, also where it was not cached; -1 for no answer, no method, or an answer that is no JSON
/// (logged).
/// Contract: whatever error code the answer has.
[[nodiscard]] int32_t _parse_passthrough_result(const char *response, const char *method);

}  // namespace cloud_account
