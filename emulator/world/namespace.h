// The private world of an emulated device: own mounts, own process ids.
// Three processes result. The outer one stays on the host and only waits; the second is
// process 1 of the device, makes the mounts and reaps orphans; the third, its child, is the
// program itself, in which enter_device() returns. When it ends, the kernel ends whatever
// still runs in the device and drops every mount. /tmp, /mnt, /dev and /usr/bin are the device's own and go
// with it. Everything else of the host is read-only, but for the folder given as flash and the one that
// GCOV_PREFIX names. That guards against accidents: a command that wants to undo the mounts can do so.
#pragma once

#include "device_root.h"

namespace emulator {

/// The first half of enter_device(): makes the namespaces, but not yet the mounts. Returns only in process 1
/// of the device, which still sees the host's files. What can be read only once (a pipe) or is to be opened
/// only once belongs between the two calls.
void split_off();

/// Enters the device. Call it first thing in main(), before any thread exists: main() is run
/// a second time from its start, inside. Open files of the host that the program needs before
/// the call (it is the last moment at which the host's /tmp is seen, and its files can be written).
/// Returns only inside the device. Outside it waits and exits with the program's status
/// (128 + n when signal n ended it). SIGINT, SIGTERM and SIGHUP are handed on to the program.
/// Ends the process with status 125 and a message where namespaces are not to be had.
/// A program started as "<program> record NAME ARGS..." inside a device reports the script
/// NAME to the emulator and exits: the device's scripts do that.
void enter_device(const DeviceOptions &options = {});

/// Ends every process of the device except process 1 and the caller. Nothing where the device has no
/// /proc of its own.
void end_other_processes();

}  // namespace emulator
