/* Runs a platform's libraries for somebody else: loads them, does the calls that it is told to do, and tells
 * what came back. "extender check platform" starts it, under an emulator where the libraries are of another
 * processor.
 *
 *     cloud_probe SOCKET
 *
 * It connects to the UNIX stream socket and says "probe <bytes of a word> <big|little>". Then each line is a
 * call, and each is answered by a line that begins with the call's result. Bytes are hexadecimal; "=" are no
 * bytes, "-" is a null pointer. What a call may write to is followed by a guard, which is told with it:
 * kGuard bytes of kFill.
 *
 *     wrapper FILE | rsa FILE                      0, or ! and the reason
 *     group BYTES DIRECTION N {ID IN LENGTH ROOM LENGTH}...    result {output}... same|changed (the inputs)
 *     op COMMAND IN LENGTH ROOM LENGTH DIRECTION   result output
 *     begin ARGUMENT | withdraw | monitor          result
 *     command COMMAND IN LENGTH REPLY LENGTH       result length reply; REPLY and LENGTH 0: a null pointer
 *     keys KEY1 KEY2 KEY3                          result {buffer}...; 0: a null pointer
 *     decrypt TEXT KEY1 KEY2 KEY3 | encrypt TEXT KEY1 KEY2    text
 */
#include <dlfcn.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "rsa.h"
#include "wrapper.h"

enum { kGuard = 64, kFill = 0xaa, kMostEntries = 16 };

static struct {
    int (*group)(WrpOpEntry *, int, int);
    int (*op)(unsigned, void *, unsigned, void *, unsigned, int);
    int (*begin)(int);
    int (*command)(unsigned, void *, unsigned, void **, unsigned *);
    int (*withdraw)(void);
    void (*monitor)(void);
    int (*keys)(char *, char *, char *);
    char *(*decrypt)(const char *, char *, char *, char *);
    char *(*encrypt)(const char *, char *, char *);
} l_calls;

static FILE *l_out; /* to the one who asks */

typedef struct Bytes {
    unsigned char *data; /* null: a null pointer; with a NUL behind */
    size_t size;
} Bytes;

static void give_up(const char *what) {
    fprintf(stderr, "cloud_probe: %s: %s\n", what, strerror(errno));
    exit(2);
}

static void *allocate(size_t size) {
    void *const memory = malloc(size);
    if (memory == NULL) {
        give_up("memory");
    }
    return memory;
}

static const char *word(void) {
    const char *const text = strtok(NULL, " \n");
    return text != NULL ? text : "-";
}

static long number(void) {
    return (long)strtoll(word(), NULL, 0);
}

static Bytes bytes(void) {
    const char *const text = word();
    Bytes result = {NULL, 0};
    size_t i;
    if (strcmp(text, "-") == 0) {
        return result;
    }
    result.size = strlen(text) / 2;
    result.data = (unsigned char *)allocate(result.size + 1);
    for (i = 0; i < result.size; ++i) {
        char digits[3] = {0};
        memcpy(digits, text + 2 * i, 2);
        result.data[i] = (unsigned char)strtoul(digits, NULL, 16);
    }
    result.data[result.size] = '\0';
    return result;
}

/* Room for an output and its guard; "-": none. */
static Bytes room(void) {
    const char *const text = word();
    Bytes result = {NULL, 0};
    if (strcmp(text, "-") != 0) {
        result.size = strtoul(text, NULL, 0) + kGuard;
        result.data = (unsigned char *)allocate(result.size);
        memset(result.data, kFill, result.size);
    }
    return result;
}

static void tell(const void *data, size_t size) {
    const unsigned char *const from = (const unsigned char *)data;
    size_t i;
    fputc(' ', l_out);
    if (data == NULL || size == 0) {
        fputc(data == NULL ? '-' : '=', l_out);
    }
    for (i = 0; data != NULL && i < size; ++i) {
        fprintf(l_out, "%02x", from[i]);
    }
}

/* The standard's way from an object pointer to a function. */
static int find(void *library, const char *name, void *function) {
    void *const found = dlsym(library, name);
    if (found == NULL) {
        fprintf(l_out, "! %s is missing\n", name);
        return 0;
    }
    memcpy(function, &found, sizeof(found));
    return 1;
}

static void load(int isStore) {
    void *const library = dlopen(word(), RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(l_out, "! %s\n", dlerror());
        return;
    }
    if (isStore ? find(library, "wrpOpGrpDo", &l_calls.group) && find(library, "wrpOpDo", &l_calls.op) &&
                      find(library, "wrpGetTransID", &l_calls.begin) &&
                      find(library, "wrpDoCmdWithoutID", &l_calls.command) &&
                      find(library, "wrpWithdrawTransID", &l_calls.withdraw) &&
                      find(library, "wrpMemPoolMonitor", &l_calls.monitor)
                : find(library, "librsa_get_keys", &l_calls.keys) &&
                      find(library, "librsa_decrypt", &l_calls.decrypt) &&
                      find(library, "librsa_encrypt", &l_calls.encrypt)) {
        fputs("0\n", l_out);
    }
}

static void group(void) {
    WrpOpEntry entries[kMostEntries];
    Bytes in[kMostEntries];
    Bytes copy[kMostEntries];
    Bytes out[kMostEntries];
    const int length = (int)number();
    const int direction = (int)number();
    const long count = number(); /* -1: a null pointer for the entries */
    int changed = 0;
    long i;
    memset(entries, 0, sizeof(entries));
    for (i = 0; i < count && i < kMostEntries; ++i) {
        entries[i].objectId = (uintptr_t)number();
        in[i] = bytes();
        copy[i] = in[i];
        if (in[i].data != NULL) {
            copy[i].data = (unsigned char *)allocate(in[i].size + 1);
            memcpy(copy[i].data, in[i].data, in[i].size);
        }
        entries[i].input = (uintptr_t)in[i].data;
        entries[i].inputLength = (uintptr_t)number();
        out[i] = room();
        entries[i].output = (uintptr_t)out[i].data;
        entries[i].outputLength = (uintptr_t)number();
    }
    fprintf(l_out, "%d", l_calls.group(count < 0 ? NULL : entries, length, direction));
    for (i = 0; i < count && i < kMostEntries; ++i) {
        tell(out[i].data, out[i].size);
        changed |= in[i].data != NULL && memcmp(in[i].data, copy[i].data, in[i].size) != 0;
        free(in[i].data);
        free(out[i].data);
        if (in[i].data != NULL) {
            free(copy[i].data);
        }
    }
    fprintf(l_out, " %s\n", changed ? "changed" : "same");
}

static void op(void) {
    const unsigned command = (unsigned)number();
    const Bytes in = bytes();
    const unsigned inLength = (unsigned)number();
    const Bytes out = room();
    const unsigned outLength = (unsigned)number();
    fprintf(l_out, "%d", l_calls.op(command, in.data, inLength, out.data, outLength, (int)number()));
    tell(out.data, out.size);
    fputc('\n', l_out);
    free(in.data);
    free(out.data);
}

static void command(void) {
    const unsigned which = (unsigned)number();
    const Bytes in = bytes();
    const unsigned inLength = (unsigned)number();
    void *reply = NULL;
    unsigned length = 0;
    void **const wantsReply = number() != 0 ? &reply : NULL;
    unsigned *const wantsLength = number() != 0 ? &length : NULL;
    fprintf(l_out, "%d", l_calls.command(which, in.data, inLength, wantsReply, wantsLength));
    fprintf(l_out, " %u", length);
    tell(reply, length);
    fputc('\n', l_out);
    free(in.data);
}

static void keys(void) {
    Bytes key[3];
    int i;
    for (i = 0; i < 3; ++i) {
        key[i].size = RSA_KEY_TEXT_BYTES + kGuard;
        key[i].data = number() != 0 ? (unsigned char *)allocate(key[i].size) : NULL;
        if (key[i].data != NULL) {
            memset(key[i].data, kFill, key[i].size);
        }
    }
    fprintf(l_out, "%d", l_calls.keys((char *)key[0].data, (char *)key[1].data, (char *)key[2].data));
    for (i = 0; i < 3; ++i) {
        tell(key[i].data, key[i].size);
        free(key[i].data);
    }
    fputc('\n', l_out);
}

static void crypt_text(int decrypts) {
    const Bytes text = bytes();
    const Bytes key1 = bytes();
    const Bytes key2 = bytes();
    const Bytes key3 = bytes();
    char *const result =
        decrypts ? l_calls.decrypt((char *)text.data, (char *)key1.data, (char *)key2.data, (char *)key3.data)
                 : l_calls.encrypt((char *)text.data, (char *)key1.data, (char *)key2.data);
    fputc('0', l_out);
    tell(result, result != NULL ? strlen(result) : 0);
    fputc('\n', l_out);
    free(result);
    free(text.data);
    free(key1.data);
    free(key2.data);
    free(key3.data);
}

static void answer(char *line) {
    const char *const name = strtok(line, " \n");
    if (name == NULL) {
        fputs("! nothing asked\n", l_out);
    } else if (strcmp(name, "wrapper") == 0) {
        load(1);
    } else if (strcmp(name, "rsa") == 0) {
        load(0);
    } else if (strcmp(name, "group") == 0) {
        group();
    } else if (strcmp(name, "op") == 0) {
        op();
    } else if (strcmp(name, "begin") == 0) {
        fprintf(l_out, "%d\n", l_calls.begin((int)number()));
    } else if (strcmp(name, "command") == 0) {
        command();
    } else if (strcmp(name, "withdraw") == 0) {
        fprintf(l_out, "%d\n", l_calls.withdraw());
    } else if (strcmp(name, "monitor") == 0) {
        l_calls.monitor();
        fputs("0\n", l_out);
    } else if (strcmp(name, "keys") == 0) {
        keys();
    } else if (strcmp(name, "decrypt") == 0 || strcmp(name, "encrypt") == 0) {
        crypt_text(name[0] == 'd');
    } else {
        fprintf(l_out, "! %s is no call\n", name);
    }
    fflush(l_out);
}

int main(int argc, char **argv) {
    static const uint16_t kOne = 1;
    struct sockaddr_un address;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    char *line = NULL;
    size_t size = 0;
    FILE *in;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (argc != 2 || strlen(argv[1]) >= sizeof(address.sun_path)) {
        fputs("usage: cloud_probe SOCKET\n", stderr);
        return 2;
    }
    strcpy(address.sun_path, argv[1]);
    if (fd < 0 || connect(fd, (const struct sockaddr *)&address, sizeof(address)) != 0) {
        give_up(argv[1]);
    }
    in = fdopen(fd, "r");
    l_out = fdopen(dup(fd), "w");
    if (in == NULL || l_out == NULL) {
        give_up("socket");
    }
    fprintf(l_out, "probe %u %s\n", (unsigned)sizeof(uintptr_t),
            *(const unsigned char *)&kOne == 1 ? "little" : "big");
    fflush(l_out);
    while (getline(&line, &size, in) > 0) {
        answer(line);
    }
    free(line);
    return 0;
}
