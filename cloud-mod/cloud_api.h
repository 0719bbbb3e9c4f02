// The instance's beginning and end: connecting, signal handlers, teardown.
#pragma once

#include "cloud_instance.h"

/// Returns `cloudApi` when it is set; else makes an instance: connects, waits for the broker's
/// consent, installs the signal handlers and registers cloud_api_destroy() with atexit().
/// @return the instance, or null (logged). A failed connection closes descriptor 0: the instance's
///         descriptor is still 0 then and is closed in any case. Not set in `cloudApi`.
[[nodiscard]] CloudApi *cloud_api_init();

/// Tears the instance down: joins the callback thread, which waits for its pending requests, and the
/// register thread, closes the connection, frees everything. Harmless when there is no instance, when
/// a teardown runs already (a signal interrupted it), and in a background thread, which cannot wait
/// for itself: it is refused there. In a child made by fork() it gives up the child's copies only.
void cloud_api_destroy();

/// SIGINT, SIGTERM: teardown, then _exit(-1): status 255 without exit handlers. During a teardown,
/// also that of another handler: _exit(-1) at once. They strike anywhere, inside malloc() too: so this
/// teardown leaves the memory to the end of the process. A background thread that needs the lock which
/// the interrupted call holds (the heap's, standard output's) is waited for until the second signal.
void cloud_api_sigint_handle(int number);

/// SIGPIPE: teardown; the interrupted write fails and the program goes on.
void cloud_api_sigpipe_handle(int number);

// Interface only: nothing in the library calls what follows.

/// Prints the instance on standard output, whatever the log level.
/// @param api  not null.
void cloud_api_dump(CloudApi *api);
