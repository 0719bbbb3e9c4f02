// JSON-RPC answers of the cloud: objects with "error_code", "msg" on failure, "result" on success.
// Values are read as text, because the cloud sends numbers both bare and quoted. No state: safe in any
// thread, one tree in one thread at a time.
#pragma once

#include <cjson/cJSON.h>

/// Parses a text. @return the tree, which the caller deletes (cJSON_Delete); null for a null text or one that
/// is no JSON (logged).
[[nodiscard]] cJSON *cloud_jsonParseStr(const char *pBuf);

/// The member `name` of an object as text (see cJSON_GetJsonObjString), letter case included.
/// Contract: of several members of that name the last one counts.
/// @return a text that belongs to the tree; null when absent, or for a null argument (logged).
[[nodiscard]] char *cloud_getValueFromJsonObj(cJSON *pJsonObj, const char *name);

/// The value of one item as text: a string's content, a number in decimals (integers without a fraction), an
/// array or object as unformatted JSON. Booleans, null, numbers beyond all bounds and those between -1 and 1
/// other than 0 have none: read as a whole number they would be 0, which means success.
/// @return a text that belongs to the item, is valid as long as its tree and is released with it; the
///         same text for every later call. Null for an item without text, a null item, or no memory.
[[nodiscard]] char *cJSON_GetJsonObjString(cJSON *item);

/// Type codes of cJSON_GetJsonObjType. Only kJsonArray is tested anywhere.
enum JsonType {
    kJsonInvalid = -1,
    kJsonFalse = 0,
    kJsonTrue = 1,
    kJsonNull = 2,
    kJsonNumber = 3,
    kJsonString = 4,
    kJsonArray = 5,
    kJsonObject = 6,
};

/// The type of an item. @return a JsonType; kJsonInvalid for a null item.
[[nodiscard]] int cJSON_GetJsonObjType(cJSON *item);

// Interface only: no command calls what follows.

/// The member `name` of element `index` of an array, as above.
/// @return a text that belongs to the tree; null when absent, or when there is no such element (logged).
[[nodiscard]] char *cloud_getValueFromArrayJsonObj(cJSON *pJsonArrayObj, int index, const char *name);
