#include "cloud_accountResult.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "cloud_accountLog.h"
#include "cloud_jsonRpc.h"
#include "cloud_number.h"
#include "cloud_owner.h"
#include "cloud_path.h"
#include "cloud_replaceFile.h"
#include "cloud_userConfig.h"
#include "cloud_util.h"
#include "kxcc.h"

namespace cloud_account {
namespace {

constexpr size_t kTokenRoom = 512;
constexpr size_t kCommandRoom = 512;
constexpr size_t kCachePathRoom = 256;
constexpr mode_t kCacheFolderMode = 0777;
constexpr char kErrorCode[] = "error_code";

// Of this process's only login.
bool l_loginStored = false;

struct Answer {
    JsonTree tree;
    int32_t code;  // the cloud's, or -1 when there is none to read
    bool complete;
};

[[nodiscard]] JsonTree _parse_answer(const char *response, Caller caller) {
    if (response == nullptr) {
        MSG_LOG_FOR(caller, "Response is NULL.\n");
        return nullptr;
    }
    JsonTree tree(cloud_jsonParseStr(response));
    if (tree == nullptr) {
        MSG_LOG_FOR(caller, "Parse response json failed.\n");
    }
    return tree;
}

[[nodiscard]] cJSON *_member(const cJSON *parent, const char *name) {
    return cJSON_GetObjectItemCaseSensitive(parent, name);
}

[[nodiscard]] Answer _read_answer(const char *response, Caller caller = Caller::here()) {
    JsonTree tree = _parse_answer(response, caller);
    if (tree == nullptr) {
        return {nullptr, kFailed, false};
    }
    const char *code = cloud_getValueFromJsonObj(tree.get(), kErrorCode);
    if (code == nullptr) {
        MSG_LOG_FOR(caller, "Errcode is NULL\n");
        return {nullptr, kFailed, false};
    }
    return {std::move(tree), cloud_parseInt32(code), true};
}

void _write_token(const char *token, const char *url) {
    std::array<char, kTokenRoom + 1> text;  // and the last newline
    snprintf(text.data(), kTokenRoom, "%s\n%s", token, url);
    const size_t length = strlen(text.data());
    text[length] = '\n';
    static_cast<void>(cloud_replaceFile(kTokenPath, {text.data(), length + 1}, kSecretMode));
}

// A word that the shell takes as it stands.
[[nodiscard]] bool _is_plain(std::string_view text) {
    static constexpr std::string_view kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    return text.find_first_not_of(kPlain) == std::string_view::npos;
}

// Quotes a text so that the shell passes it on as one argument, whatever it holds.
// False when it does not fit: half of it would be another command.
[[nodiscard]] bool _quote(const char *text, char *out, size_t size) {
    static constexpr std::string_view kQuoteInside = "'\\''";
    size_t used = 0;
    const auto append = [&](std::string_view piece) {
        if (piece.size() >= size - used) {
            return false;
        }
        memcpy(out + used, piece.data(), piece.size());
        used += piece.size();
        out[used] = '\0';
        return true;
    };
    bool fits = append("'");
    for (; fits && *text != '\0'; ++text) {
        fits = append(*text == '\'' ? kQuoteInside : std::string_view(text, 1));
    }
    return fits && append("'");
}

void _start_token_deletion(const char *expiresIn) {
    std::array<char, kCommandRoom> quoted;
    const char *argument = expiresIn;
    if (!_is_plain(expiresIn)) {
        if (!_quote(expiresIn, quoted.data(), quoted.size())) {
            MSG_LOG("Expiry of token is too long.\n");
            return;
        }
        argument = quoted.data();
    }
    std::array<char, kCommandRoom> command;
    const int length = snprintf(command.data(), command.size(), kDeleteTokenFormat, argument);
    if (length < 0 || static_cast<size_t>(length) >= command.size()) {
        MSG_LOG("Expiry of token is too long.\n");
        return;
    }
    [[maybe_unused]] const int status = system(command.data());
}

// The method comes from a caller: it must not lead out of the cache's folder.
[[nodiscard]] bool _names_a_file(std::string_view method) {
    return method != "." && method != ".." && method.find('/') == std::string_view::npos;
}

// Makes it where it is missing. A link or another's folder would have files written wherever its maker likes.
[[nodiscard]] bool _has_cache_folder() {
    static_cast<void>(mkdir(kCacheFolder, kCacheFolderMode));
    struct stat status {};
    return lstat(kCacheFolder, &status) == 0 && S_ISDIR(status.st_mode) &&
           (status.st_uid == 0 || status.st_uid == geteuid());
}

[[nodiscard]] int32_t _cache_passthrough_result(const char *method, const char *response) {
    if (method == nullptr || response == nullptr) {
        return KXCC_ERROR_PARAMETER;
    }
    if (_names_a_file(method) && _has_cache_folder()) {
        std::array<char, kCachePathRoom> path;
        snprintf(path.data(), path.size(), "%s/%s", kCacheFolder, method);
        static_cast<void>(cloud_replaceFile(path.data(), response, kSecretMode));
    }
    return 0;
}

}  // namespace

bool _login_was_stored() {
    return l_loginStored;
}

int32_t _parse_binddev_result(const char *response, const char * /*unused*/) {
    return _read_answer(response).code;
}

int32_t _parse_unbinddev_result(const char *response, const char * /*unused*/) {
    return _read_answer(response).code;
}

int32_t _parse_update_alias_result(const char *response, const char * /*unused*/) {
    return _read_answer(response).code;
}

int32_t _parse_rmuser_result(const char *response, const char * /*unused*/) {
    return _read_answer(response).code;
}

int32_t _parse_online_result(const char *response, const char * /*unused*/) {
    const JsonTree tree = _parse_answer(response, Caller::here());
    if (tree == nullptr) {
        return kFailed;
    }
    // Contract: of any kind and value, as a refusal has come from the cloud as well.
    if (_member(tree.get(), kErrorCode) == nullptr) {
        MSG_LOG("Errcode is NULL\n");
        return kFailed;
    }
    return 0;
}

int32_t _parse_login_result(const char *response, const char *user) {
    if (user == nullptr) {
        MSG_LOG("Response is NULL.\n");  // Contract: for a missing user as well.
        return kFailed;
    }
    const Answer answer = _read_answer(response);
    if (!answer.complete || answer.code != 0) {
        return answer.code;
    }
    cJSON *result = _member(answer.tree.get(), "result");
    if (result == nullptr) {
        MSG_LOG("Get result failed.");
        return kFailed;
    }
    const char *role = cloud_getValueFromJsonObj(result, "role");
    if (role == nullptr) {
        MSG_LOG("Get role failed.");
        return kFailed;
    }
    LoginInfo info{};
    info.role = static_cast<uint8_t>(cloud_parseInt32(role));
    cstr_strncpy(info.userName, user, sizeof info.userName);
    l_loginStored = cloud_setLoginInfo(&info) != 0;
    return 0;
}

int32_t _parse_token_result(const char *response, const char * /*unused*/) {
    const Answer answer = _read_answer(response);
    if (!answer.complete || answer.code != 0) {
        return answer.code;
    }
    cJSON *result = _member(answer.tree.get(), "result");
    if (result == nullptr) {
        MSG_LOG("Result is NULL\n");
        return kFailed;
    }
    const char *token = cloud_getValueFromJsonObj(result, "deviceToken");
    if (token == nullptr) {
        MSG_LOG("Token is NULL\n");
        return kFailed;
    }
    const char *expiresIn = cloud_getValueFromJsonObj(result, "expiresIn");
    if (expiresIn == nullptr) {
        MSG_LOG("Expires is NULL\n");
        return kFailed;
    }
    cJSON *services = _member(result, "serviceUrls");
    if (services == nullptr) {
        MSG_LOG("Server URL is NULL\n");
        return kFailed;
    }
    const char *url = cloud_getValueFromJsonObj(services, "eweb");
    if (url == nullptr) {
        MSG_LOG("Server ID is NULL\n");
        return kFailed;
    }
    _write_token(token, url);
    _start_token_deletion(expiresIn);
    return 0;
}

int32_t _parse_passthrough_result(const char *response, const char *method) {
    if (response == nullptr || method == nullptr) {
        MSG_LOG("Response is NULL.\n");
        return kFailed;
    }
    const JsonTree tree(cloud_jsonParseStr(response));
    if (tree == nullptr) {
        MSG_LOG("Parse response json failed.\n");
        return kFailed;
    }
    return _cache_passthrough_result(method, response);
}

}  // namespace cloud_account
