/* The device configuration store, as the platform offers it (libwrapper.so).
 *
 * Records are fixed layouts in the device's byte order, addressed by object id; docs/platform.md lists
 * the ids, layouts and commands that cloud_msg uses. Every function may be called by several processes
 * at once; within one process by one thread at a time, which also has the one open transaction. No
 * function writes to standard output or error. */
#ifndef PLATFORM_WRAPPER_H
#define PLATFORM_WRAPPER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One operation of a group: five machine words. On the 32-bit device that is the store's 20-byte
 * wire format; on a 64-bit host each word widens with the addresses. Unused words are 0. */
typedef struct WrpOpEntry {
    uintptr_t objectId;
    uintptr_t input;        /* address of the data to store; 0 for a read */
    uintptr_t inputLength;  /* bytes */
    uintptr_t output;       /* address that receives the record; 0 for a write */
    uintptr_t outputLength; /* bytes */
} WrpOpEntry;

enum WrpDirection { WRP_WRITE = 0, WRP_READ = 1 };

/* The objects that cloud_msg uses: a record has an id for each direction. */
enum WrpObject {
    WRP_LOGIN_WRITE = 0x120001,
    WRP_LOGIN_READ = 0x120002,
    WRP_UPGRADE_TIME_WRITE = 0x120003,
    WRP_DEVICE_STATUS_WRITE = 0x120007,
    WRP_DEVICE_STATUS_READ = 0x120008,
    WRP_UPGRADE_INFO_WRITE = 0x120009,
    WRP_UPGRADE_INFO_READ = 0x12000a,
    WRP_DEVICE_INFO_WRITE = 0x12000b,
    WRP_DEVICE_INFO_READ = 0x12000c,
    WRP_ACCOUNT_INSERT = 0x12000d,
    WRP_ACCOUNT_REMOVE = 0x12000e,
    WRP_ACCOUNT_READ = 0x12000f,
    WRP_ACCOUNT_DELETE_ALL = 0x120010 /* no buffers */
};

/* Bytes of their records, and of a user's name in them with its NUL. */
enum WrpBytes {
    WRP_LOGIN_BYTES = 130,
    WRP_UPGRADE_TIME_BYTES = 8,
    WRP_DEVICE_STATUS_BYTES = 2,
    WRP_UPGRADE_INFO_BYTES = 2648,
    WRP_DEVICE_INFO_BYTES = 66,
    WRP_ACCOUNT_BYTES = 648,
    WRP_USER_NAME_BYTES = 129
};

/* The two commands, and what they act on: WRP_VERIFY with wrpOpDo and a reply of WRP_VERIFY_REPLY_BYTES,
 * WRP_INSTALL with wrpDoCmdWithoutID. */
enum WrpCommand { WRP_INSTALL = 0xe0001, WRP_VERIFY = 0xe0002 };
enum { WRP_VERIFY_REPLY_BYTES = 132 };
#define WRP_IMAGE_FILE "/tmp/httpUploadFile.bin"

/* Carries out a group of operations of one direction, all or none.
 * entries: `length` bytes of consecutive entries; length is a multiple of sizeof(WrpOpEntry).
 * A read fills each output buffer with the object's record, never beyond outputLength bytes; an object
 * that was never written reads as zeros. A length that is not the record's is refused, in either
 * direction. The buffers stay the caller's.
 * Returns 0 on success; anything else on failure, and then no record has changed. */
int wrpOpGrpDo(WrpOpEntry *entries, int length, int direction);

/* Carries out one store command. in/inLength: its input, may be null and 0; out/outLength: buffer of
 * the caller for the reply. Returns 0 when a reply was written; the reply holds the command's result. */
int wrpOpDo(unsigned command, void *in, unsigned inLength, void *out, unsigned outLength, int direction);

/* Opens a store transaction for this process. Returns 0, or a non-zero code when none can be had. */
int wrpGetTransID(int argument);

/* Carries out one store command within the open transaction. *reply is set to the reply, which
 * belongs to the store and stays valid until the next call here; *replyLength to its bytes.
 * Returns 0 when there is a reply. */
int wrpDoCmdWithoutID(unsigned command, void *in, unsigned inLength, void **reply, unsigned *replyLength);

/* Gives the open transaction back without effect. Returns 0; non-zero when none was open. */
int wrpWithdrawTransID(void);

/* Starts the store's memory-pool monitor; called once at the start of a program. */
void wrpMemPoolMonitor(void);

#ifdef __cplusplus
}
#endif
#endif
