/* One request to the cloud that is answered in the background, while the program does other things.
 *
 *     callback '{"method":"myTestConnection"}'
 *
 * Prints the cloud's answer, or {"error_code":-3002,...} when none came in time. The callback may also
 * never be called, when the library's thread cannot connect: so the wait has an end, too. */
#include <errno.h>
#include <inttypes.h>
#include <kxcc.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { kTimeoutMs = 5000, kFlag = 1, kWaitSeconds = kTimeoutMs / 1000 + 2 };

static sem_t answered;

/* Runs in the library's thread, at most once for each request. */
static void on_answer(int32_t id, const char *text) {
    printf("request %" PRId32 ": %s\n", id, text); /* the text goes when this returns */
    sem_post(&answered);
}

static int wait_for_answer(void) {
    struct timespec until;
    int result;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += kWaitSeconds;
    do {
        result = sem_timedwait(&answered, &until);
    } while (result != 0 && errno == EINTR);
    return result;
}

int main(int argc, char **argv) {
    const char *request = argc > 1 ? argv[1] : "{\"method\":\"myTestConnection\"}";
    int32_t id;

    sem_init(&answered, 0, 0);
    id = kxcc_send_request_async(request, kTimeoutMs, kFlag, on_answer);
    if (id <= 0) {
        fprintf(stderr, "not submitted: %" PRId32 "\n", id);
        return EXIT_FAILURE;
    }
    puts("submitted");
    if (wait_for_answer() != 0) {
        fputs("not called back\n", stderr);
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
