// Request texts of the account commands: what each command asks of the cloud.
//
// Every formatter returns a text that wipes itself, as it may hold a plain password, or null when the request
// cannot be made (most reasons are logged). No other copy of a password stays in memory. Arguments are those
// of the command, as they stand on the command line; a null one gives null, except where it is allowed. All
// requests but online and passthrough carry "deviceId", read afresh: without a readable identity there is
// none of these, without a "devid" in it the text is empty.
#pragma once

#include <array>
#include <cstddef>

#include "base64.h"
#include "cloud_secret.h"
#include "cloud_userConfig.h"

namespace cloud_account {

/// "bindDevice" with "cloudUserName" and the decrypted "cloudPassword"; null when that does not decrypt.
[[nodiscard]] SecretText _format_bind_msg_req(const char *user, const char *encPassword);
/// The same of Base64 texts: at most 128 and 512 bytes decoded.
[[nodiscard]] SecretText _format_bind_msg_req_nocrypt(const char *b64User, const char *b64Password);
/// "unbindDevice" with "cloudUserName". @param user  null or empty: the stored account's; null without one.
[[nodiscard]] SecretText _format_unbind_msg_req(const char *user, const char *unused);
/// "deviceAccountLogin" with "cloudUserName" and the decrypted "cloudPassword".
[[nodiscard]] SecretText _format_login_msg_req(const char *user, const char *encPassword);
/// "updateAlias" with "alias", at most 64 bytes decoded.
[[nodiscard]] SecretText _format_alias_msg_req(const char *b64Alias, const char *unused);
/// "removeDeviceUser" with "ownerAccount" and "userAccount".
[[nodiscard]] SecretText _format_rmuser_msg_req(const char *owner, const char *user);
/// A method alone, no "params"; the method is "a".
[[nodiscard]] SecretText _format_online_msg_req(const char *unused1, const char *unused2);
/// "getDeviceTokenWithServices" with "serviceIds", an array of one.
/// @param serviceId  at most 15 characters of it are taken; null: the web service.
[[nodiscard]] SecretText _format_devtoken_msg_req(const char *serviceId, const char *unused);
/// The given method, and as "params" the JSON value of at most 2099 bytes; no "deviceId".
[[nodiscard]] SecretText _format_passthrough_msg_req(const char *method, const char *b64Request);

/// Decodes a Base64 argument into a zeroed buffer, so that the result is a text.
/// @return false when the text is longer than the buffer takes. Malformed text is not refused: what was
///         decoded before the fault stands in the buffer.
[[nodiscard]] inline bool _decode_argument(const char *b64, char *text, size_t size) {
    const auto room = static_cast<int32_t>(size - 1);
    if (b64_decodedSize(b64) > room) {
        return false;
    }
    static_cast<void>(b64_decode(text, room, b64, -1));
    return true;
}

// Rooms of decoded arguments: those of the records they go to, and of a passthrough request.
using UserName = std::array<char, kUserNameRoom>;
using Password = SecretBuffer<sizeof(AccountList::password)>;
using Alias = std::array<char, sizeof(DeviceInfo::alias)>;
inline constexpr size_t kPassthroughRoom = 2100;

}  // namespace cloud_account
