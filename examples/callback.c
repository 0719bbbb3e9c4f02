/* One request to the cloud that is answered in the background, while the program does other things.
 *
 *     callback '{"method":"myTestConnection"}'
 *
 * Prints the cloud's answer, or {"error_code":-3002,...} when none came in time. */
#include <inttypes.h>
#include <kxcc.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>

enum { kTimeoutMs = 5000, kFlag = 1 };

static sem_t answered;

/* Runs in the library's thread, once for each request. */
static void on_answer(int32_t id, const char *text) {
    printf("request %" PRId32 ": %s\n", id, text); /* the text goes when this returns */
    sem_post(&answered);
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
    while (sem_wait(&answered) != 0) {
        /* a signal came first */
    }
    return EXIT_SUCCESS;
}
