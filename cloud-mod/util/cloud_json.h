// Reading and writing the JSON of messages. Keys are matched exactly, and a value of another type
// counts as missing.
//
// Parsing and printing are safe from several threads: cJSON keeps the place of the last error in a
// global, and asks localeconv(), which fills another, so both are done under one lock.
#pragma once

#include <cstdint>

#include "cloud_owner.h"
#include "cloud_secret.h"

/// @param text  may be null.
/// @return the tree; null when the text is no JSON, or without memory.
[[nodiscard]] JsonTree cloud_json_parse(const char *text);

/// @param tree  may be null.
/// @return the text without white space; null for a null tree, or without memory.
[[nodiscard]] JsonText cloud_json_print(const cJSON *tree);

/// The same for a tree that may hold a password: no other copy of the text stays in memory.
[[nodiscard]] SecretText cloud_json_print_secret(cJSON *tree);

/// Reads a number (cut to its integer part and to 32 bits).
/// @param tree   may be null or no object: then the key is missing.
/// @param value  out: untouched when missing.
[[nodiscard]] bool cloud_json_int(const cJSON *tree, const char *key, int32_t *value);

/// @return the key's text, which belongs to the tree; null when missing.
[[nodiscard]] const char *cloud_json_text(const cJSON *tree, const char *key);
