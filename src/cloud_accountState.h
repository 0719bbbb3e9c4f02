// The device's account state, brought in line after the cloud has agreed.
//
// Unbound: status 0, no account, "/tmp/cloud.login" 0, connection mode 0. Bound: status 1, exactly one
// account with its encrypted password, connection mode 1. A handler takes the command's arguments and
// does nothing when one that it needs is null. Store failures are logged by the store's access; the
// handler goes on.
#pragma once

namespace cloud_account {

void _bind_store_account(const char *user, const char *encPassword);
void _tmp_bind_store_account(const char *b64User, const char *b64Password);
void _unbind_clear_account(const char *unused1, const char *unused2);
void _tmp_unbind_clear_account(const char *unused1, const char *unused2);
void _config_login_info(const char *user, const char *encPassword);
void _update_alias_store(const char *b64Alias, const char *unused);

}  // namespace cloud_account
