// Dispatch of the firmware commands, and the image locks between processes: a lock is a file that exists
// while a command runs. One that a killed process leaves blocks that command until somebody removes it or the
// device restarts.
#pragma once

/// Codes of cloud_localMsgTask.
enum LocalMessage : unsigned int {
    kLocalDownload = 0,
    kLocalCheck = 1,
    kLocalUpdate = 2,
};

/// Runs one firmware command: a check without lock, download and update each under a lock of its own; one
/// that is held (logged) keeps the command from running. Outcomes are in the status file.
/// @param code  a LocalMessage; anything else is logged.
/// @return a value without meaning.
[[nodiscard]] int cloud_localMsgTask(unsigned int code);
