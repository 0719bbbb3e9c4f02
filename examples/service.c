/* The device's service: greets the cloud through the broker and answers requests from the cloud.
 *
 *     service [COUNT]
 *
 * Ends after COUNT requests (default: never; SIGTERM ends it with status 255). When the broker is
 * started anew, it registers again; when that broker refuses, it fails, and whoever supervises it
 * starts it anew. */
#include <fcntl.h>
#include <inttypes.h>
#include <kxcc.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum { kCheckSeconds = 10 };

static sem_t handled;

static char *copy(const char *text) {
    const size_t size = strlen(text) + 1;
    char *const heap = (char *)malloc(size);
    if (heap != NULL) {
        memcpy(heap, text, size);
    }
    return heap;
}

/* A request from the cloud. The response goes to the library, which releases it. */
static int32_t on_request(const char *request, char **response) {
    printf("request: %s\n", request);
    *response = copy("{\"error_code\":0}");
    sem_post(&handled);
    return 0;
}

/* The broker asks who this device is. Record and texts go to the library; null texts are sent empty. */
static void on_hello_request(kxcc_hello_info **info) {
    kxcc_hello_info *const mine = (kxcc_hello_info *)calloc(1, sizeof(*mine));
    if (mine != NULL) {
        mine->deviceId = copy("8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012");
        mine->deviceName = copy("extender");
        mine->deviceMac = copy("02-00-00-12-34-56");
        mine->firmwareVersion = copy("1.0.3 Build 20200923 Rel.36519");
    }
    *info = mine;
}

static void on_hello_response(const kxcc_hello_result *result) {
    printf("greeted: error %" PRId32 ", status %" PRId32 "\n", result->errorCode, result->status);
}

static int32_t register_service(void) {
    static const kxcc_hello_hooks hooks = {on_hello_request, on_hello_response};
    const int32_t result = kxcc_register_callback_v2(on_request, &hooks);
    if (fcntl(STDIN_FILENO, F_GETFD) < 0) {
        /* Without a broker the library closes descriptor 0, and would close again what is next there. */
        (void)open("/dev/null", O_RDONLY);
    }
    if (result != KXCC_OK) {
        fprintf(stderr, "not registered: %" PRId32 "\n", result);
    } else {
        puts("registered");
    }
    return result;
}

/* Was a request handled before the next look at the broker is due? */
static int wait_for_request(void) {
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += kCheckSeconds;
    return sem_timedwait(&handled, &until) == 0;
}

int main(int argc, char **argv) {
    long left = argc > 1 ? strtol(argv[1], NULL, 10) : -1;
    int32_t registered;

    sem_init(&handled, 0, 0);
    setvbuf(stdout, NULL, _IOLBF, 0);
    registered = register_service();
    if (registered != KXCC_OK) {
        return EXIT_FAILURE;
    }
    while (left != 0) {
        if (wait_for_request()) {
            left -= left > 0 ? 1 : 0;
        } else if (registered != KXCC_OK || kxcc_get_link_status() == KXCC_ERROR_SEND) {
            registered = register_service(); /* the broker went, and may be back */
            if (registered == KXCC_ERROR_TIMEOUT) {
                return EXIT_FAILURE; /* refused: no later call would connect */
            }
        }
    }
    return EXIT_SUCCESS; /* leaving joins the library's thread, so the last response is sent */
}
