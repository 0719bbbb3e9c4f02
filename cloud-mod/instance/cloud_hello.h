// The texts of the helloCloud greeting: the request that the device sends to the cloud, and the
// cloud's answer to it. No state, no transfer.
#pragma once

#include <kxcc.h>

#include "cloud_owner.h"

/// Releases the record with its texts; null is allowed.
void cloud_hello_free(kxcc_hello_info *info);

using HelloInfo = std::unique_ptr<kxcc_hello_info, Releaser<cloud_hello_free>>;

/// Makes the greeting as the body of its message: {"response":"<the request as text>"}. A null text
/// of the record becomes an empty one.
/// @return the body, or null when there is no memory (logged).
[[nodiscard]] JsonText cloud_hello_request(const kxcc_hello_info &info);

/// Reads the cloud's answer from the body of its message. @param body  may be null.
/// @param result  out: complete on true; its texts belong to `answer`.
/// @param answer  out: the tree that owns the texts.
/// @return false when anything is missing (logged).
[[nodiscard]] bool cloud_hello_result(const char *body, kxcc_hello_result *result, JsonTree *answer);
