// The account commands: one entry point each. All run on the caller's thread and return what the
// program prints.
//
// Request commands send one request to the cloud and wait for its answer: in account mode 5 seconds, else
// three times 5.5 seconds. They return 0 on success, after which the device's local state is brought in line;
// the cloud's own error code; -1 when an argument is missing or unusable, or when the answer is none; or a
// negative code of the request layer (kxcc.h). Each leaves its result in "/tmp/cloud.error". Arguments are
// texts of the caller's; null gives -1 without a request, except where it is allowed.
#pragma once

#include <cstdint>

/// Binds the device to the owner's account and stores it, then starts the reload script.
/// @param user         account name; 128 characters of it are stored.
/// @param encPassword  password, encrypted with the device's key; -1 when it does not decrypt.
[[nodiscard]] int32_t cloud_msg_bind_device(const char *user, const char *encPassword);

/// Binds the device for the phone app; no script is started.
/// @param b64User      Base64 of the account name, at most 128 bytes decoded.
/// @param b64Password  Base64 of the plain password, at most 512 bytes decoded. Stored encrypted; plain where
///                     the device's RSA does not take it.
[[nodiscard]] int32_t cloud_msg_tmp_bind_device(const char *b64User, const char *b64Password);

/// Unbinds the device: account, status, login mark and the stored user's lines in "/tmp/passwd" go, then the
/// reload script is started.
/// @param user  account name; null or empty: the stored account's, -1 when there is none.
[[nodiscard]] int32_t cloud_msg_unbind_device(const char *user);

/// The same for the phone app; no script is started.
[[nodiscard]] int32_t cloud_msg_tmp_unbind_device(const char *user);

/// Logs an account in and stores its role and name. An owner's login replaces the stored account when name
/// or password differ, and then starts the reload script. Arguments as for cloud_msg_bind_device.
[[nodiscard]] int32_t cloud_msg_account_login(const char *user, const char *encPassword);

/// Names the device in the cloud and in the store.
/// @param b64Alias  Base64 of the name, at most 64 bytes decoded.
[[nodiscard]] int32_t cloud_msg_update_alias(const char *b64Alias);

/// Removes a user of the device in the cloud; nothing changes on the device.
/// @param owner  the owner's account name. @param user  the name of the one to remove.
[[nodiscard]] int32_t cloud_msg_remove_user(const char *owner, const char *user);

/// Fetches a device token and the web service's address into "/tmp/cloud.token" and starts the script that
/// removes it when it expires.
[[nodiscard]] int32_t cloud_msg_get_devtoken();

/// Passes a request through and leaves the answer, any JSON, in "/tmp/cloud_data_cache/<method>".
/// @param method      the cloud's method.
/// @param b64Request  Base64 of its parameters, a JSON value of at most 2099 bytes.
[[nodiscard]] int32_t cloud_msg_passthrough(const char *method, const char *b64Request);

/// Tests the link to the cloud. @return 0 for every answer with an error code, whatever it is.
[[nodiscard]] int32_t cloud_msg_check_online();

/// Contract: the password counts, not the name. @return 1 when the device has one stored, else 0.
[[nodiscard]] int32_t cloud_msg_check_bind_status();

/// @return the broker's mode (1: account mode), or a code of the request layer.
[[nodiscard]] int32_t cloud_msg_get_logic_status();

/// Sets the broker's mode: account mode when the device has an account, else the other.
/// Contract: whatever the broker answers, @return 0.
[[nodiscard]] int32_t cloud_msg_set_logic_status();

/// Unbinds a bound device before a factory reset; what could not be unbound is left in
/// "/tmp/factory.part", the stored credentials with it. @return 0.
[[nodiscard]] int32_t cloud_msg_factory();

/// Asks the management daemon to kick clients off; takes up to 3 seconds when it does not answer, 6 when it
/// does not read either.
/// @return 0, whatever the daemon does; -1 without memory or when the own socket could not be opened.
[[nodiscard]] int32_t cloud_msg_kickoff();
