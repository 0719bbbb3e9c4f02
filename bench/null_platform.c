/* The platform's two libraries with next to nothing inside, so that what is measured is the program's own:
 * records are plain files in "/mnt", a password is its own cipher text, and no firmware is installed. */
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "rsa.h"
#include "wrapper.h"

static int transfer(const WrpOpEntry *entry, int direction) {
    char path[64];
    const int reading = direction == WRP_READ;
    /* The ids for writing and reading a record are neighbours, but for the account's. */
    const unsigned long id = entry->objectId == WRP_ACCOUNT_READ ? WRP_ACCOUNT_INSERT : entry->objectId;
    snprintf(path, sizeof path, "/mnt/null_%lx", (id + 1) / 2);
    const int fd = open(path, reading ? O_RDONLY | O_CLOEXEC : O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ssize_t done = 0;
    if (reading) {
        memset((void *)entry->output, 0, entry->outputLength);
        done = fd < 0 ? 0 : read(fd, (void *)entry->output, entry->outputLength);
    } else {
        done = fd < 0 ? -1 : write(fd, (const void *)entry->input, entry->inputLength);
    }
    if (fd >= 0) {
        close(fd);
    }
    return done < 0 ? -1 : 0;
}

int wrpOpGrpDo(WrpOpEntry *entries, int length, int direction) {
    for (size_t i = 0; i < (size_t)length / sizeof *entries; ++i) {
        if (transfer(&entries[i], direction) != 0) {
            return -1;
        }
    }
    return 0;
}

int wrpOpDo(unsigned command, void *in, unsigned inLength, void *out, unsigned outLength, int direction) {
    (void)command, (void)in, (void)inLength, (void)out, (void)outLength, (void)direction;
    return -1;
}

int wrpGetTransID(int argument) {
    (void)argument;
    return -1;
}

int wrpDoCmdWithoutID(unsigned command, void *in, unsigned inLength, void **reply, unsigned *replyLength) {
    (void)command, (void)in, (void)inLength, (void)reply, (void)replyLength;
    return -1;
}

int wrpWithdrawTransID(void) {
    return -1;
}

void wrpMemPoolMonitor(void) {}

int librsa_get_keys(char *key1, char *key2, char *key3) {
    (void)key1, (void)key2, (void)key3;
    return 0;
}

char *librsa_decrypt(const char *cipherText, char *key1, char *key2, char *key3) {
    (void)key1, (void)key2, (void)key3;
    return strdup(cipherText);
}

char *librsa_encrypt(const char *plainText, char *key1, char *key2) {
    (void)key1, (void)key2;
    return strdup(plainText);
}
