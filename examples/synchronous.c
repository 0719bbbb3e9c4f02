/* One request to the cloud, waited for.
 *
 *     synchronous '{"method":"myTestConnection"}'
 *
 * Prints the cloud's answer, or what went wrong. */
#include <inttypes.h>
#include <kxcc.h>
#include <stdio.h>
#include <stdlib.h>

enum { kTimeoutMs = 5000, kFlag = 1 };

int main(int argc, char **argv) {
    const char *request = argc > 1 ? argv[1] : "{\"method\":\"myTestConnection\"}";
    char *answer = NULL;
    const int32_t result = kxcc_send_request_sync(request, kTimeoutMs, kFlag, &answer);
    if (result != KXCC_OK) {
        fprintf(stderr, "no answer: %" PRId32 "\n", result);
        return EXIT_FAILURE;
    }
    puts(answer);
    free(answer); /* the answer is the caller's */
    return EXIT_SUCCESS;
}
