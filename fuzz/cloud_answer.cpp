// The cloud's answer to any request. First byte: which command asked; then a method, a NUL, the answer.
#include <unistd.h>

#include <array>

#include "cloud_accountCommand.h"
#include "cloud_accountResult.h"
#include "cloud_api.h"
#include "cloud_checkFwVersion.h"
#include "cloud_jsonRpc.h"
#include "cloud_notifyEventToCloud.h"
#include "cloud_owner.h"
#include "cloud_path.h"
#include "fuzz.h"

using namespace cloud_account;

namespace {

constexpr std::array<ParseResponse, 5> kParsers{_parse_binddev_result, _parse_online_result,
                                                _parse_login_result, _parse_token_result,
                                                _parse_passthrough_result};

void _parse(ParseResponse parse, const char *answer, const std::string &method) {
    const std::string path = std::string(kCacheFolder) + "/" + method;
    const bool namesAFile = path.find('/', sizeof kCacheFolder) == std::string::npos && method != "." &&
                            method != ".." && !method.empty() && method.size() < 200;
    const int32_t result = parse(answer, method.c_str());
    if (parse == _parse_passthrough_result && namesAFile) {
        FUZZ_EXPECT(fuzz::file(path.c_str()) == (result == 0 ? answer : ""));
        unlink(path.c_str());
    }
}

// Each value as text, the same one for each look.
void _read(cJSON *item) {
    for (cJSON *child = item->child; child != nullptr; child = child->next) {
        const char *text = cJSON_GetJsonObjString(child);
        FUZZ_EXPECT(text == cJSON_GetJsonObjString(child) && cJSON_GetJsonObjType(child) != kJsonInvalid);
        _read(child);
    }
}

}  // namespace

FUZZ_TARGET(cloud_answer) {
    const size_t command = fuzz::cut_byte(input);
    const std::string method = fuzz::cut(input);
    const std::string answer(input);
    if (command < kParsers.size()) {
        _parse(kParsers[command], answer.c_str(), method);
    } else if (command % 2 == 0) {
        checkFwVerResultHandle(0, answer.c_str());
    } else {
        closeConnResultHandle(1, answer.c_str());
    }
    cloud_api_destroy();  // several timeouts in a row are told to the broker, by a connection that stays
    fuzz::calm();
    const JsonTree tree(cloud_jsonParseStr(answer.c_str()));
    if (tree != nullptr) {
        _read(tree.get());
    }
}
