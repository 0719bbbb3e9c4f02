// The calls on the main connection: submit a request, ask for its answer, both at once, the broker's
// status, and notifications. They are the public calls, documented in kxcc.h.
//
// Each is one message out and one in, in the calling thread, without a lock: two threads must not
// be in them at once. A failed exchange leaves the connection as it is; nothing is sent again.
#pragma once

#include <kxcc.h>
