/* Client library of the local cloud broker (cloud-brd): requests to the cloud, the broker's status,
 * notifications to the broker, and registration as the device's service.
 *
 * The library connects to "/tmp/cloud-brd" on the first call that needs it and leaves at exit. A
 * connection that cannot be opened closes descriptor 0, whatever that is. Leaving the broker waits
 * until each request with a callback has its answer or time-out.
 *
 * Signals: each new connection installs handlers, in place of the program's own: SIGINT and SIGTERM
 * leave the broker and end the process with status 255 (a second one at once); SIGPIPE leaves the
 * broker, and the next call but kxcc_get_response connects anew.
 *
 * Threads: all calls belong to one thread of the program; a callback may make them too, to submit its
 * next request (exchanges with the broker take turns; while the library leaves the broker such a call
 * gets KXCC_ERROR_SEND). Callbacks, handlers and hooks run in threads of
 * the library; handlers and hooks must not call it. Those threads block SIGPIPE, SIGINT and SIGTERM, and
 * the program's other threads must do so, too: a handler that runs in one of them takes the
 * connection away under a call. They have the system's default stack, of 256 KiB at least. A child made by
 * fork() must not call the library; its end and its signals leave the parent's connection alone.
 *
 * Log: while one of the files "/tmp/log.1" to "/tmp/log.4" exists, a regular file of root or the own
 * user, the library logs on standard output, with "/tmp/log.4" whole messages. A line that nobody
 * reads raises no signal. */
#ifndef KXCC_H
#define KXCC_H

#include <stdint.h>

#if defined(__GNUC__)
#define KXCC_API __attribute__((visibility("default")))
#else
#define KXCC_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The version of this header; kxcc_version() tells that of the library which runs. A new major number
 * comes with a new name of the shared library (libkxcc.so.1). */
#define KXCC_VERSION_MAJOR 1
#define KXCC_VERSION_MINOR 0
#define KXCC_VERSION_PATCH 0
#define KXCC_VERSION_NUMBER (KXCC_VERSION_MAJOR * 0x10000 + KXCC_VERSION_MINOR * 0x100 + KXCC_VERSION_PATCH)

/* Returns KXCC_VERSION_NUMBER as the library was built with it. Touches nothing; any thread may call it. */
KXCC_API int32_t kxcc_version(void);

/* Result codes. Positive results are request ids or status values, as each call says; an error code
 * of the broker is handed on as it is. */
enum kxcc_result {
    KXCC_OK = 0,
    KXCC_ERROR_GENERAL = -1000,  /* allocation, wrong message, no free place for a callback */
    KXCC_ERROR_SERVER = -2000,   /* a listening socket could not be made; no call here returns it */
    KXCC_ERROR_SEND = -2001,     /* no connection to the broker, or sending failed */
    KXCC_ERROR_RECEIVE = -2002,  /* the broker closed, or did not answer within 3 seconds */
    KXCC_ERROR_PENDING = -3001,  /* no answer yet */
    KXCC_ERROR_TIMEOUT = -3002,  /* no answer in time */
    KXCC_ERROR_REPLY = -6000,    /* an answer that cannot be parsed or lacks a key */
    KXCC_ERROR_PARAMETER = -7004 /* an argument that is not allowed */
};

/* How long is waited where the caller does not say, and how long between two questions for one answer. */
enum kxcc_wait { KXCC_DEFAULT_TIMEOUT_MS = 5000, KXCC_POLL_INTERVAL_MS = 500 };

/* Events that the broker takes (kxcc_notify_cloud_brd). */
enum kxcc_event {
    KXCC_EVENT_TIMEOUTS = 1,        /* automatic requests timed out repeatedly: connect anew */
    KXCC_EVENT_USER_TIMEOUTS = 2,   /* requests that a user waits for did */
    KXCC_EVENT_RECONNECT = 3,       /* connect anew at once */
    KXCC_EVENT_ACCOUNT_MODE = 10,   /* the device has an owner from now on */
    KXCC_EVENT_NO_ACCOUNT_MODE = 11 /* it has none any more */
};

/* The broker's link to the cloud (kxcc_get_link_status); other values: no link. */
enum kxcc_link_status { KXCC_LINK_UP = 2, KXCC_LINK_RECONNECTING = 4 };

/* The broker's mode (kxcc_get_logic_status); any other value counts as without an account. */
enum kxcc_logic_status { KXCC_LOGIC_NO_ACCOUNT = 0, KXCC_LOGIC_ACCOUNT = 1 };

/* Receives the answer of a request submitted with a callback, at most once, in the library's
 * callback thread: the cloud's answer, or {"error_code":-3002,"msg":"Request timeout"}. It is never
 * called when that thread's own connection to the broker failed, or when a later request was given
 * the place of this one, whose time-out had passed: wait for it no longer than a little over the
 * time-out. The text is the library's and goes when the callback returns. The request counts as pending
 * until then. Answers are taken one in each 50 to 100 ms: with more than about ten requests pending they come
 * late. */
typedef void (*kxcc_callback)(int32_t id, const char *text);

/* Submits a request in account mode and returns once the broker has accepted it.
 * request: JSON-RPC text, copied; timeout: milliseconds, negative: KXCC_DEFAULT_TIMEOUT_MS; flag: passed
 * on to the broker; callback: receives the answer, or null when the caller polls with kxcc_get_response.
 * Returns the request id (positive), the broker's own error code (a positive one looks like an id),
 * KXCC_ERROR_GENERAL (no memory, a null request, or a damaged reply), KXCC_ERROR_SEND,
 * KXCC_ERROR_RECEIVE or KXCC_ERROR_REPLY. With a callback also these, when the request was submitted
 * all the same and its id is lost: KXCC_ERROR_GENERAL (20 such requests are pending; or no thread can
 * be started, and the callback may be called once a later request starts one) and
 * KXCC_ERROR_PARAMETER (the broker gave the id 0, or the connection was lost meanwhile). */
KXCC_API int32_t kxcc_send_request_async(const char *request, int32_t timeout, int32_t flag,
                                         kxcc_callback callback);

/* The same in no-account mode. */
KXCC_API int32_t kxcc_send_request_async_noaccount(const char *request, int32_t timeout, int32_t flag,
                                                   kxcc_callback callback);

/* Asks once for the answer of a submitted request. text must not be null. On 0, *text is a heap text,
 * the caller's to free; else it is as it was, or null when there was no memory.
 * Never connects. Returns 0, KXCC_ERROR_PENDING (ask again later), KXCC_ERROR_PARAMETER (id not
 * positive, or no connection: none was made yet, or SIGPIPE took it away), KXCC_ERROR_SEND,
 * KXCC_ERROR_RECEIVE, KXCC_ERROR_REPLY, or KXCC_ERROR_GENERAL (a damaged reply, one of the wrong type, or no
 * memory). */
KXCC_API int32_t kxcc_get_response(int32_t id, char **text);

/* Submits a request in account mode and waits for its answer, polling every KXCC_POLL_INTERVAL_MS. A poll
 * that fails counts as "not yet". Arguments as for kxcc_send_request_async, with a time-out of 0 it
 * submits and does not ask; text as for kxcc_get_response.
 * Returns 0, KXCC_ERROR_TIMEOUT once `timeout` milliseconds have passed, or what the submit returned when
 * that was negative. */
KXCC_API int32_t kxcc_send_request_sync(const char *request, int32_t timeout, int32_t flag, char **text);

/* Tells the broker of an event (enum kxcc_event; other numbers are passed on as they are). Returns the
 * broker's error code (0: accepted), KXCC_ERROR_SEND, KXCC_ERROR_RECEIVE, KXCC_ERROR_REPLY, or
 * KXCC_ERROR_GENERAL (a damaged reply). */
KXCC_API int32_t kxcc_notify_cloud_brd(int32_t event);

/* The broker's link to the cloud (enum kxcc_link_status), or a code as of kxcc_notify_cloud_brd. */
KXCC_API int32_t kxcc_get_link_status(void);

/* The broker's mode (enum kxcc_logic_status), or a code as above. */
KXCC_API int32_t kxcc_get_logic_status(void);

/* Answers a request that the cloud sends to the device. *response: null at first; a heap text (malloc)
 * that the library releases, or left null, which is sent as an empty text. Returns the error code to
 * answer with. Runs in the library's register thread. request is the library's and goes on return. */
typedef int32_t (*kxcc_request_handler)(const char *request, char **response);

/* The device's greeting to the cloud. Record and texts are on the heap (malloc), and the library
 * releases them; a null text is sent as an empty one. */
typedef struct kxcc_hello_info {
    char *deviceId;
    char *cloudUserName;
    char *deviceName;
    char *alias;
    char *deviceMac;
    char *hardwareId;
    char *deviceModel;
    char *deviceHardwareVersion;
    char *firmwareId;
    char *oemId;
    char *firmwareVersion;
} kxcc_hello_info;

/* The cloud's answer to the greeting. The record and its texts are the library's and go when the
 * hook returns. */
typedef struct kxcc_hello_result {
    int32_t errorCode;
    int32_t status;
    const char *firmwareDownloadPage;
    const char *info;
    int32_t stopConnect;
    int32_t reconnectTime;
} kxcc_hello_result;

/* Both run in the library's register thread. *info is null at first; left null, no greeting is sent.
 * The response hook is called only for a complete answer, also for one with an error code. */
typedef void (*kxcc_hello_request_hook)(kxcc_hello_info **info);
typedef void (*kxcc_hello_response_hook)(const kxcc_hello_result *result);

/* Either hook may be null; without the request hook the device does not greet. */
typedef struct kxcc_hello_hooks {
    kxcc_hello_request_hook request;
    kxcc_hello_response_hook response;
} kxcc_hello_hooks;

/* Registers the program with the broker as the device's service and waits at most KXCC_DEFAULT_TIMEOUT_MS for
 * the broker's consent. handler and hooks must not be null; hooks is copied. After a refusal of the
 * registration it may be called again; a failed connection of the register thread is final until the
 * program leaves the broker. Returns 0, KXCC_ERROR_PARAMETER, KXCC_ERROR_GENERAL (no connection, no thread)
 * or KXCC_ERROR_TIMEOUT. */
KXCC_API int32_t kxcc_register_callback_v2(kxcc_request_handler handler, const kxcc_hello_hooks *hooks);

#ifdef __cplusplus
}
#endif
#endif
