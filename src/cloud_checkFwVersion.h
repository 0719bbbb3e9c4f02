// Asks the cloud for newer firmware.
#pragma once

/// Asks the cloud for its firmware list, stores the entry to offer and notes the outcome in the status file.
/// @return the cloud's "error_code", 0 for success.
int cloud_msg_getFwList();
