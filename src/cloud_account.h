// The account commands: one entry point each. All run on the caller's thread and return what the
// program prints.
//
// Request commands send one request to the cloud and return: 0 on success (the device's local state is
// then brought in line); the cloud's own error code; -1 when an argument is missing or unusable, when a
// password does not decrypt or when the answer is not one; a negative code of the request layer (see
// kxcc.h). Each leaves its result in "/tmp/cloud.error". A null argument is allowed where named.
#pragma once

#include <cstdint>

/// @param user        account name. @param encPassword  password, encrypted with the device's key.
int32_t cloud_msg_bind_device(const char *user, const char *encPassword);
/// Base64 of account name and plain password.
int32_t cloud_msg_tmp_bind_device(const char *b64User, const char *b64Password);
/// @param user  account name; null or empty: the stored account's.
int32_t cloud_msg_unbind_device(const char *user);
int32_t cloud_msg_tmp_unbind_device(const char *user);
int32_t cloud_msg_account_login(const char *user, const char *encPassword);
int32_t cloud_msg_update_alias(const char *b64Alias);
int32_t cloud_msg_remove_user(const char *owner, const char *user);
int32_t cloud_msg_get_devtoken();
/// @param method  the cloud's method. @param b64Request  Base64 of its parameters, a JSON value.
int32_t cloud_msg_passthrough(const char *method, const char *b64Request);
/// 0 whenever the cloud answered at all, be it with an error.
int32_t cloud_msg_check_online();

/// 1 when the device has an account with a password stored, else 0.
int32_t cloud_msg_check_bind_status();
/// The broker's mode (1: account mode), or a code of the request layer.
int32_t cloud_msg_get_logic_status();
/// Sets the broker's mode after the stored account. @return 0.
int32_t cloud_msg_set_logic_status();
/// Unbinds before a factory reset; what could not be unbound is left in "/tmp/factory.part". @return 0.
int32_t cloud_msg_factory();
/// Asks the management daemon to kick clients off. @return 0, whatever the daemon does; -1 when the
/// socket could not be opened.
int32_t cloud_msg_kickoff();
