#include "cloud_json.h"

#include "cloud_signals.h"

namespace {

constinit Mutex l_lock;

}  // namespace

JsonTree cloud_json_parse(const char *text) {
    const SignalsBlocked blocked;
    const LockHeld lock(&l_lock);
    return JsonTree(cJSON_Parse(text));
}

JsonText cloud_json_print(const cJSON *tree) {
    const SignalsBlocked blocked;
    const LockHeld lock(&l_lock);
    return JsonText(tree != nullptr ? cJSON_PrintUnformatted(tree) : nullptr);
}

SecretText cloud_json_print_secret(cJSON *tree) {
    const SignalsBlocked blocked;
    const LockHeld lock(&l_lock);
    return tree != nullptr ? cloud_printSecret(tree) : nullptr;
}

bool cloud_json_int(const cJSON *tree, const char *key, int32_t *value) {
    const cJSON *const item = cJSON_GetObjectItemCaseSensitive(tree, key);
    if (cJSON_IsNumber(item) == 0) {
        return false;
    }
    *value = item->valueint;
    return true;
}

const char *cloud_json_text(const cJSON *tree, const char *key) {
    return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(tree, key));
}
