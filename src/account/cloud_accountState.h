// The device's account state, brought in line after the cloud has agreed.
//
// Unbound: status 0, no account, "/tmp/cloud.login" 0, connection mode 0. Bound: status 1, exactly one
// account with its encrypted password, connection mode 1. A handler takes the command's arguments; bind and
// login do nothing when one of theirs is null. Store failures are logged by the store's access; the handler
// goes on.
#pragma once

namespace cloud_account {

/// To Bound, with the password as received; then the reload script.
void _bind_store_account(const char *user, const char *encPassword);
/// To Bound, with the password encrypted for the store; no script.
/// Contract: a password that does not encrypt is stored plain.
void _tmp_bind_store_account(const char *b64User, const char *b64Password);
/// To Unbound, the user's lines in the password file gone; then the reload script.
void _unbind_clear_account(const char *unused1, const char *unused2);
/// The same without the script.
void _tmp_unbind_clear_account(const char *unused1, const char *unused2);
/// "/tmp/cloud.login" 1. With the owner's role just stored, the account is replaced by `user` and
/// `encPassword` (then the reload script) when another name is stored, or the same name in any letter case
/// with another password; never when there is no account, a password does not decrypt (logged), or the login
/// did not reach the store.
void _config_login_info(const char *user, const char *encPassword);
/// The decoded alias into the device's information. @param b64Alias  as it was sent.
void _update_alias_store(const char *b64Alias, const char *unused);

}  // namespace cloud_account
