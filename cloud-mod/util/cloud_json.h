// Reading the keys of a message: matched exactly, and a value of another type counts as missing.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>

/// Reads a number (cut to its integer part and to 32 bits).
/// @param tree   may be null or no object: then the key is missing.
/// @param value  out: untouched when missing.
[[nodiscard]] inline bool cloud_json_int(const cJSON *tree, const char *key, int32_t *value) {
    const cJSON *const item = cJSON_GetObjectItemCaseSensitive(tree, key);
    if (cJSON_IsNumber(item) == 0) {
        return false;
    }
    *value = item->valueint;
    return true;
}

/// @return the key's text, which belongs to the tree; null when missing.
[[nodiscard]] inline const char *cloud_json_text(const cJSON *tree, const char *key) {
    return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(tree, key));
}
