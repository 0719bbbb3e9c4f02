// Events that the device reports to the cloud: the closing of its connection.
#pragma once

#include <cstdint>

// Interface only: no command calls what follows.

/// Tells the cloud that the device closes its connection, and returns at once; the answer comes through
/// closeConnResultHandle. A request that cannot be sent is logged.
/// @param reason  code of the reason.
void cloud_closeConnection(int32_t reason);

/// Takes the answer of that notice and logs its outcome. Runs in the client library's callback thread.
/// @param response  the answer's text, the library's; null counts as unreadable.
void closeConnResultHandle(int32_t requestId, const char *response);
