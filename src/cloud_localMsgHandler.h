// The firmware commands of the device's back end: check, download, update.
#pragma once

/// Runs one firmware command, download and update under their image lock.
/// @param code  0 check, 1 download, 2 update; anything else does nothing.
/// @return a value without meaning.
int cloud_localMsgTask(unsigned int code);
