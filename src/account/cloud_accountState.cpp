#include "cloud_accountState.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "cloud_accountKeys.h"
#include "cloud_accountLog.h"
#include "cloud_accountPasswd.h"
#include "cloud_accountRequest.h"
#include "cloud_accountResult.h"
#include "cloud_api_wrap.h"
#include "cloud_path.h"
#include "cloud_replaceFile.h"
#include "cloud_secret.h"
#include "cloud_userConfig.h"
#include "cloud_util.h"

namespace cloud_account {
namespace {

constexpr uint8_t kBound = 1;
constexpr uint8_t kOwnerRole = 0;
constexpr size_t kUserNameMax = sizeof(AccountList::userName) - 1;
constexpr size_t kPlainCompared = 512;

void _start_reload() {
    [[maybe_unused]] const int status = system(kReloadCommand);
}

void _set_bound() {
    DeviceStatus status;
    cloud_getDeviceStatus(&status);
    status.bind_status = kBound;
    cloud_setDeviceStatus(&status);
}

// The device keeps one account: the one before goes.
void _replace_account(const char *user, const char *password) {
    cloud_delallAccount();
    Wiped<AccountList> list{};
    cstr_strncpy(list.userName, user, sizeof list.userName);
    cstr_strncpy(list.password, password, sizeof list.password);
    cloud_insertAccount(&list);
}

void _clear_account() {
    Wiped<AccountList> list;
    cloud_getAccount(&list);
    _remove_passwd_user(list.userName);
    DeviceStatus status{};
    cloud_setDeviceStatus(&status);
    cloud_delallAccount();
    static_cast<void>(cloud_replaceFile(kLoginPath, "0\n"));
    cloud_wrap_set_connection_mode(kModeNoAccount);
}

// The role as the store has it now. A record that was not stored, or reads back as another's, would give an
// old login's role to this one: then it counts as a guest's.
[[nodiscard]] bool _is_owner_login(const char *user) {
    LoginInfo login;
    return _login_was_stored() && cloud_getLoginInfo(&login) != 0 && login.role == kOwnerRole &&
           strncmp(login.userName, user, sizeof login.userName - 1) == 0;
}

// Whether the password of a login differs from the stored one. Two encryptions of one password differ,
// so the plain texts are compared; if either does not decrypt nothing is known and nothing changes.
[[nodiscard]] bool _password_differs(const char *encPassword, const char *stored,
                                     Caller caller = Caller::here()) {
    RsaKeys keys;
    keys.load();
    const SecretText given = keys.decrypt(encPassword);
    const SecretText known = keys.decrypt(stored);
    if (given == nullptr || known == nullptr) {
        MSG_LOG_FOR(caller, "Decrypt password failed.");
        return false;
    }
    return strncmp(given.get(), known.get(), kPlainCompared) != 0;
}

}  // namespace

void _bind_store_account(const char *user, const char *encPassword) {
    if (user == nullptr || encPassword == nullptr) {
        return;
    }
    _set_bound();
    _replace_account(user, encPassword);
    cloud_wrap_set_connection_mode(kModeAccount);
    _start_reload();
}

void _tmp_bind_store_account(const char *b64User, const char *b64Password) {
    if (b64User == nullptr || b64Password == nullptr) {
        return;
    }
    // Whether they fit was settled when the request was made.
    UserName user{};
    Password password{};
    static_cast<void>(_decode_argument(b64User, user.data(), user.size()));
    static_cast<void>(_decode_argument(b64Password, password.data(), password.size()));
    RsaKeys keys;
    keys.loadPublic();
    const SecretText encrypted = keys.encrypt(password.data());
    _set_bound();
    // Contract: plain when it does not encrypt.
    _replace_account(user.data(), encrypted != nullptr ? encrypted.get() : password.data());
    cloud_wrap_set_connection_mode(kModeAccount);
}

void _unbind_clear_account(const char * /*unused*/, const char * /*unused*/) {
    _clear_account();
    _start_reload();
}

void _tmp_unbind_clear_account(const char * /*unused*/, const char * /*unused*/) {
    _clear_account();
}

void _config_login_info(const char *user, const char *encPassword) {
    if (user == nullptr || encPassword == nullptr) {
        return;
    }
    static_cast<void>(cloud_replaceFile(kLoginPath, "1\n"));
    Wiped<AccountList> stored;
    cloud_getAccount(&stored);
    const bool known = stored.count > 0 && strncasecmp(user, stored.userName, kUserNameMax) == 0;
    const bool changed = known ? _password_differs(encPassword, stored.password) : stored.userName[0] != '\0';
    if (changed && _is_owner_login(user)) {
        _replace_account(user, encPassword);
        _start_reload();
    }
}

void _update_alias_store(const char *b64Alias, const char * /*unused*/) {
    DeviceInfo info;
    cloud_getDeviceInfo(&info);
    memset(info.alias, 0, sizeof info.alias);
    static_cast<void>(_decode_argument(b64Alias, info.alias, sizeof info.alias));
    cloud_setDeviceInfo(&info);
}

}  // namespace cloud_account
