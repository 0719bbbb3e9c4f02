// Counts cloud requests that went unanswered, and has the broker rebuild its link to the cloud after a few
// in a row. The counters live as long as the process and belong to its own thread.
#pragma once

/// Kinds of request that are counted.
enum RequestType : int {
    kRequestNone = 0,
    kRequestFwCheck = 1,
    kRequestFwDownload = 2,
    kRequestNotifyEvent = 3,
    kRequestTypeEnd = 4,
};

/// Notes a request that timed out. Contract: whatever `type` says, it counts as a firmware check.
void cloud_handleTimeout(int type);

/// Counts one time-out of a kind; at the second in a row (byUser not 0) or the third (0) the broker is
/// asked to rebuild its link. The count starts anew when the broker agrees; otherwise (logged) the next
/// time-out asks again. A type outside RequestType does nothing.
void requestTimeoutCount(int type, int byUser);

/// The time-outs of each kind: they log it; those of the firmware note the failure in the status file and
/// are counted, as if a user waited. Commands meet the first only.
void cloudCheckFwExpired();
void cloudDownloadFwExpired();
void notifyEventExpired();

// Interface only: no command calls what follows.

/// Starts counting anew: one kind, or all of them (logged) when `type` is none of the three.
void cloud_initReqTimeoutCount(int type);
