#include "cloud_jsonRpc.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "cloud_owner.h"
#include "cloud_util.h"

namespace {

// Whole numbers up to here are exact in a double.
constexpr double kExactIntegerMax = 9007199254740992.0;
constexpr size_t kIntegerRoom = 24;

// The library prints a whole number of 16 digits as "1e+15", which atoi would read as 1.
char *_print_integer(double value) {
    char *text = static_cast<char *>(cJSON_malloc(kIntegerRoom));
    if (text != nullptr) {
        snprintf(text, kIntegerRoom, "%lld", static_cast<long long>(value));
    }
    return text;
}

char *_print_value(cJSON *item) {
    const double value = item->valuedouble;
    const bool exact = value >= -kExactIntegerMax && value <= kExactIntegerMax;
    if (cJSON_IsNumber(item) && exact && value == static_cast<double>(static_cast<long long>(value))) {
        return _print_integer(value);
    }
    const bool readable = cJSON_IsNumber(item) ? std::isfinite(value) && std::fabs(value) > 1
                                               : cJSON_IsArray(item) || cJSON_IsObject(item);
    return readable ? cJSON_PrintUnformatted(item) : nullptr;
}

char *_find_member(const cJSON *parent, const char *name) {
    char *found = nullptr;
    cJSON *member = nullptr;
    cJSON_ArrayForEach(member, parent) {
        if (member->string != nullptr && strcmp(member->string, name) == 0) {
            found = cJSON_GetJsonObjString(member);  // Contract: no break, the last of several counts.
        }
    }
    return found;
}

}  // namespace

cJSON *cloud_jsonParseStr(const char *pBuf) {
    if (pBuf == nullptr) {
        CLOUD_LOG("pBuf is NULL!\n");
        return nullptr;
    }
    // The place of the error as a result of the call: the library's variable for it is every thread's.
    const char *end = pBuf;
    cJSON *tree = cJSON_ParseWithOpts(pBuf, &end, 0);
    if (tree == nullptr) {
        CLOUD_LOG("Error before: [%s]\n", end);
    }
    return tree;
}

char *cloud_getValueFromJsonObj(cJSON *pJsonObj, const char *name) {
    if (pJsonObj == nullptr || name == nullptr) {
        CLOUD_LOG("pJsonObj or name is NULL!\n");
        return nullptr;
    }
    return _find_member(pJsonObj, name);
}

char *cloud_getValueFromArrayJsonObj(cJSON *pJsonArrayObj, int index, const char *name) {
    if (pJsonArrayObj == nullptr || name == nullptr) {
        CLOUD_LOG("pJsonArrayObj or name is NULL!\n");
        return nullptr;
    }
    if (cJSON_GetJsonObjType(pJsonArrayObj) != kJsonArray) {
        CLOUD_LOG("pJsonArrayObj type is not array!\n");
        return nullptr;
    }
    if (index < 0 || index >= cJSON_GetArraySize(pJsonArrayObj)) {
        CLOUD_LOG("index is invalid.\n");
        return nullptr;
    }
    const cJSON *element = cJSON_GetArrayItem(pJsonArrayObj, index);
    if (element == nullptr) {
        CLOUD_LOG("json array parse error!\n");
        return nullptr;
    }
    return _find_member(element, name);
}

char *cJSON_GetJsonObjString(cJSON *item) {
    if (item == nullptr) {
        return nullptr;
    }
    // Only strings use this place of an item; whatever stands there is released with the item.
    if (item->valuestring == nullptr) {
        item->valuestring = _print_value(item);
    }
    return item->valuestring;
}

int cJSON_GetJsonObjType(cJSON *item) {
    if (cJSON_IsFalse(item)) {
        return kJsonFalse;
    }
    if (cJSON_IsTrue(item)) {
        return kJsonTrue;
    }
    if (cJSON_IsNull(item)) {
        return kJsonNull;
    }
    if (cJSON_IsNumber(item)) {
        return kJsonNumber;
    }
    if (cJSON_IsString(item)) {
        return kJsonString;
    }
    if (cJSON_IsArray(item)) {
        return kJsonArray;
    }
    return cJSON_IsObject(item) ? kJsonObject : kJsonInvalid;
}
