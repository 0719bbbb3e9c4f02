/* libwrapper.so to start from: the records in one file, replaced as a whole, so that a group of writes is
 * there or not. What is the device's own is marked "Here:". docs/platform.md tells what each call owes its
 * caller. */
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>
#include <wrapper.h>

/* Here: a place that outlives a restart, in a folder that nobody else may write to. */
#ifndef STORE_FILE
#define STORE_FILE "/mnt/platform.store"
#endif

/* Where the records stand in the file, one behind the other. */
enum {
    kTimeAt = WRP_LOGIN_BYTES,
    kStatusAt = kTimeAt + WRP_UPGRADE_TIME_BYTES,
    kUpgradeAt = kStatusAt + WRP_DEVICE_STATUS_BYTES,
    kDeviceAt = kUpgradeAt + WRP_UPGRADE_INFO_BYTES,
    kAccountAt = kDeviceAt + WRP_DEVICE_INFO_BYTES,
    kStoreSize = kAccountAt + WRP_ACCOUNT_BYTES
};
enum { kCountSize = 4, kNoFirmware = 1 };

static const struct Record {
    uintptr_t writeId, readId;
    size_t offset, size;
} kRecords[] = {{WRP_LOGIN_WRITE, WRP_LOGIN_READ, 0, WRP_LOGIN_BYTES},
                {WRP_UPGRADE_TIME_WRITE, 0, kTimeAt, WRP_UPGRADE_TIME_BYTES},
                {WRP_DEVICE_STATUS_WRITE, WRP_DEVICE_STATUS_READ, kStatusAt, WRP_DEVICE_STATUS_BYTES},
                {WRP_UPGRADE_INFO_WRITE, WRP_UPGRADE_INFO_READ, kUpgradeAt, WRP_UPGRADE_INFO_BYTES},
                {WRP_DEVICE_INFO_WRITE, WRP_DEVICE_INFO_READ, kDeviceAt, WRP_DEVICE_INFO_BYTES},
                {WRP_ACCOUNT_INSERT, WRP_ACCOUNT_READ, kAccountAt, WRP_ACCOUNT_BYTES},
                {WRP_ACCOUNT_REMOVE, 0, kAccountAt, WRP_ACCOUNT_BYTES},
                {WRP_ACCOUNT_DELETE_ALL, 0, kAccountAt, 0}};

static int transaction = 0;

/* The record of an entry that is right as it stands, or null. */
static const struct Record *find(const WrpOpEntry *entry, int direction) {
    size_t i;
    for (i = 0; i < sizeof(kRecords) / sizeof(kRecords[0]); ++i) {
        const struct Record *const record = &kRecords[i];
        const int reads = direction == WRP_READ;
        if (entry->objectId == (reads ? record->readId : record->writeId)) {
            const uintptr_t buffer = reads ? entry->output : entry->input;
            const uintptr_t length = reads ? entry->outputLength : entry->inputLength;
            return length == record->size && (buffer != 0 || length == 0) ? record : NULL;
        }
    }
    return NULL;
}

/* Nothing stored yet reads as zeros. */
static int load(unsigned char *store) {
    const int fd = open(STORE_FILE, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    ssize_t got;
    memset(store, 0, kStoreSize);
    if (fd < 0) {
        return errno == ENOENT ? 0 : -1;
    }
    got = read(fd, store, kStoreSize);
    close(fd);
    return got == kStoreSize ? 0 : -1;
}

static int save(const unsigned char *store) {
    const int fd = open(STORE_FILE ".new", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    int good;
    if (fd < 0) {
        return -1;
    }
    good = write(fd, store, kStoreSize) == kStoreSize && fsync(fd) == 0;
    close(fd);
    return good && rename(STORE_FILE ".new", STORE_FILE) == 0 ? 0 : -1;
}

static void apply(unsigned char *store, const WrpOpEntry *entry, const struct Record *record) {
    unsigned char *const kept = store + record->offset;
    const unsigned char *const input = (const unsigned char *)entry->input;
    if (entry->objectId == WRP_ACCOUNT_DELETE_ALL) {
        memset(kept, 0, WRP_ACCOUNT_BYTES);
    } else if (entry->objectId != WRP_ACCOUNT_REMOVE) {
        memcpy(kept, input, record->size);
    } else if (strncmp((const char *)kept + kCountSize, (const char *)input + kCountSize,
                       WRP_USER_NAME_BYTES) == 0) {
        memset(kept, 0, WRP_ACCOUNT_BYTES);
    }
}

static void read_record(unsigned char *store, const WrpOpEntry *entry, const struct Record *record) {
    memcpy((void *)entry->output, store + record->offset, record->size);
    if (entry->objectId == WRP_ACCOUNT_READ) {
        const int32_t count = store[kAccountAt + kCountSize] != 0;
        memcpy((void *)entry->output, &count, sizeof(count));
    }
}

int wrpOpGrpDo(WrpOpEntry *entries, int length, int direction) {
    const int count = length / (int)sizeof(*entries);
    unsigned char store[kStoreSize];
    int result = 0;
    int lock = -1;
    int i;
    if (entries == NULL || length <= 0 || length % (int)sizeof(*entries) != 0 || direction < 0 ||
        direction > 1) {
        return -1;
    }
    for (i = 0; i < count; ++i) {
        if (find(entries + i, direction) == NULL) {
            return -1;
        }
    }
    if (direction == WRP_WRITE) { /* one writer at a time; closing gives the lock back */
        lock = open(STORE_FILE ".lock", O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (lock < 0 || flock(lock, LOCK_EX) != 0) {
            result = -2;
        }
    }
    if (result == 0 && load(store) != 0) {
        result = -2;
    }
    for (i = 0; result == 0 && i < count; ++i) {
        (direction == WRP_WRITE ? apply : read_record)(store, entries + i, find(entries + i, direction));
    }
    if (result == 0 && direction == WRP_WRITE && save(store) != 0) {
        result = -2;
    }
    if (lock >= 0) {
        close(lock);
    }
    return result;
}

int wrpOpDo(unsigned command, void *in, unsigned inLength, void *out, unsigned outLength, int direction) {
    const int32_t error = kNoFirmware; /* Here: verify WRP_IMAGE_FILE; 0 is good */
    (void)in;
    if (command != WRP_VERIFY || inLength != 0 || out == NULL || outLength != WRP_VERIFY_REPLY_BYTES ||
        direction != WRP_READ) {
        return -1;
    }
    memset(out, 0, outLength);
    memcpy(out, &error, sizeof(error));
    return 0;
}

int wrpGetTransID(int argument) {
    (void)argument;
    return transaction++ == 0 ? 0 : (transaction = 1, -1);
}

int wrpDoCmdWithoutID(unsigned command, void *in, unsigned inLength, void **reply, unsigned *replyLength) {
    static int32_t error =
        kNoFirmware; /* Here: verify again, write to the flash, start the restart; 0 accepts */
    if (transaction == 0 || command != WRP_INSTALL || in == NULL || inLength != 4 || reply == NULL ||
        replyLength == NULL) {
        return -1;
    }
    *reply = &error;
    *replyLength = sizeof(error);
    return 0;
}

int wrpWithdrawTransID(void) {
    return transaction-- == 1 ? 0 : (transaction = 0, -1);
}

void wrpMemPoolMonitor(void) {}
