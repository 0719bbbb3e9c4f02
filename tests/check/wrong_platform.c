/* A platform with the one fault that CLOUD_FAULT names; all else is done by the libraries that
 * CLOUD_REAL_WRAPPER and CLOUD_REAL_RSA name. */
#include <dlfcn.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "rsa.h"
#include "wrapper.h"

enum { kTime = 0x120003, kInsert = 0x12000d, kRemove = 0x12000e, kList = 0x12000f };

static int l_wrote = 0;
static int l_zero = 0;

static int wrong(const char *fault) {
    const char *const chosen = getenv("CLOUD_FAULT");
    return chosen != NULL && strcmp(chosen, fault) == 0;
}

static void find(const char *variable, const char *name, void *function) {
    void *const found = dlsym(dlopen(getenv(variable), RTLD_NOW | RTLD_LOCAL), name);
    memcpy(function, &found, sizeof(found));
}

static int real_group(WrpOpEntry *entries, int length, int direction) {
    static int (*real)(WrpOpEntry *, int, int);
    if (real == NULL) {
        find("CLOUD_REAL_WRAPPER", "wrpOpGrpDo", &real);
    }
    return real(entries, length, direction);
}

/* Spoils what one entry of a read got. */
static void spoil(const WrpOpEntry *entry) {
    unsigned char *const out = (unsigned char *)entry->output;
    const size_t size = entry->outputLength;
    int set = 0;
    size_t i;
    for (i = 0; i < size; ++i) {
        set |= out[i];
    }
    if (wrong("dirty") && !set) {
        memset(out, 0xff, size);
    }
    if (wrong("flip")) {
        out[size - 1] ^= 1;
    }
    if (wrong("overrun")) {
        out[size] = 0;
    }
    if (wrong("forget") && !l_wrote) {
        memset(out, 0, size);
    }
    if (wrong("count") && entry->objectId == kList) {
        memset(out, 0, 4);
    }
}

int wrpOpGrpDo(WrpOpEntry *entries, int length, int direction) {
    const int count = length / (int)sizeof(*entries);
    int result;
    int yields;
    int i;
    if (wrong("crash") && entries == NULL) {
        abort();
    }
    if (wrong("refuse-time") && direction == WRP_WRITE && entries->objectId == kTime) {
        return -1;
    }
    if (wrong("refuse-delete") && direction == WRP_WRITE && entries->objectId == 0x120010) {
        return -1;
    }
    if (wrong("first-only") && count > 1) {
        length = sizeof(*entries);
    }
    if (wrong("keep-first") && direction == WRP_WRITE && entries->objectId == kInsert && l_wrote) {
        return 0;
    }
    if (wrong("remove-any") && direction == WRP_WRITE && entries->objectId == kRemove) {
        WrpOpEntry all = {0x120010, 0, 0, 0, 0};
        return real_group(&all, sizeof(all), direction);
    }
    if (wrong("print")) {
        puts("wrapper: a group");
        fflush(stdout);
    }
    if (wrong("input") && direction == WRP_WRITE) {
        *(char *)entries->input ^= 1;
    }
    if (wrong("torn") || wrong("stuck")) {
        for (i = 0; i + 1 < count; ++i) {
            if (real_group(entries + i, sizeof(*entries), direction) != 0) {
                return -1;
            }
            /* Half of the second group stays alone, for a kill to find. */
            for (yields = 0; yields < 500; ++yields) {
                sched_yield(); /* a torn group is to be met by a reader */
            }
            while (wrong("stuck") && *(const char *)entries[i].input == 2) {
                pause();
            }
        }
        result = real_group(entries + i, sizeof(*entries), direction);
    } else {
        result = real_group(entries, length, direction);
    }
    if (result == 0 && direction == WRP_READ) {
        for (i = 0; i < count; ++i) {
            spoil(entries + i);
        }
    }
    l_wrote |= result == 0 && direction == WRP_WRITE;
    return wrong("lenient") ? 0 : result;
}

int wrpOpDo(unsigned command, void *in, unsigned inLength, void *out, unsigned outLength, int direction) {
    int (*real)(unsigned, void *, unsigned, void *, unsigned, int);
    int result;
    find("CLOUD_REAL_WRAPPER", "wrpOpDo", &real);
    result = real(command, in, inLength, out, outLength, direction);
    if (wrong("all-good")) {
        memset(out, 0, outLength);
    }
    if (wrong("all-bad")) {
        memset(out, 1, outLength);
    }
    return result;
}

int wrpGetTransID(int argument) {
    int (*real)(int);
    find("CLOUD_REAL_WRAPPER", "wrpGetTransID", &real);
    return wrong("many-transactions") ? (void)real(argument), 0 : real(argument);
}

int wrpDoCmdWithoutID(unsigned command, void *in, unsigned inLength, void **reply, unsigned *replyLength) {
    int (*real)(unsigned, void *, unsigned, void **, unsigned *);
    int result;
    find("CLOUD_REAL_WRAPPER", "wrpDoCmdWithoutID", &real);
    result = real(command, in, inLength, reply, replyLength);
    if (wrong("all-good") || wrong("all-bad")) {
        l_zero = wrong("all-bad");
        *reply = &l_zero;
        *replyLength = sizeof(l_zero);
    }
    return result;
}

int wrpWithdrawTransID(void) {
    int (*real)(void);
    find("CLOUD_REAL_WRAPPER", "wrpWithdrawTransID", &real);
    return wrong("keeps-transaction") ? -1 : real();
}

void wrpMemPoolMonitor(void) {
    if (wrong("monitor")) {
        abort();
    }
}

int librsa_get_keys(char *key1, char *key2, char *key3) {
    int (*real)(char *, char *, char *);
    int result;
    find("CLOUD_REAL_RSA", "librsa_get_keys", &real);
    result = real(key1, key2, key3);
    if (wrong("no-key") && key1 != NULL) {
        *key1 = '\0';
    }
    if (wrong("own-key") && key3 != NULL) {
        snprintf(key3 + strlen(key3), 16, "%d", (int)getpid());
    }
    return result;
}

char *librsa_decrypt(const char *cipherText, char *key1, char *key2, char *key3) {
    char *(*real)(const char *, char *, char *, char *);
    char *result;
    find("CLOUD_REAL_RSA", "librsa_decrypt", &real);
    result = real(cipherText, key1, key2, key3);
    if (result != NULL && wrong("cut") && strlen(result) > 100) {
        result[100] = '\0';
    }
    return result == NULL && wrong("guess") ? strdup(cipherText) : result;
}

char *librsa_encrypt(const char *plainText, char *key1, char *key2) {
    char *(*real)(const char *, char *, char *);
    char *result;
    const char *at;
    if (wrong("short") && strlen(plainText) > 32) {
        return NULL;
    }
    for (at = plainText; *at != '\0'; ++at) {
        if (wrong("ascii") && (*at & 0x80) != 0) {
            return NULL;
        }
    }
    if (wrong("print")) {
        fputs("rsa: a text\n", stderr);
    }
    find("CLOUD_REAL_RSA", "librsa_encrypt", &real);
    result = real(plainText, key1, key2);
    if (result != NULL && wrong("wrap")) {
        result[64] = '\n';
    }
    return result;
}
