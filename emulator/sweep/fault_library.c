/* Preloaded into a program under test: lets one library call fail, once or from then on, and reports at the
 * program's end how often each was made and which descriptors are open. Calls count from the moment that the
 * libraries have been initialised; an access of "/dev/.sweep" shows that moment to a tracer. It reads its
 * orders from the environment and removes them there, so that what the program starts is left alone:
 *   SWEEP_REPORT  file for the report, lines "call NAME COUNT", "open TARGET FD", "hit - FD", "end - 0"
 *   SWEEP_CALL    the call that fails; "any" stands for all that allocate
 *   SWEEP_NUMBER  which one of them, from 1
 *   SWEEP_EVER    "1": and all after it
 *   SWEEP_OVER    only allocations of so many bytes or more
 * SIGUSR2 ends the program with a report.
 * The report is opened and written by system calls, and nothing is allocated for it: the program may have run
 * out of memory and descriptors, and the functions wrapped here would count. */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

enum { kPathRoom = 256, kNameRoom = 32, kLastDescriptor = 127, kEarlyRoom = 16384, kNone = -2 };

struct Call {
    const char *name;
    atomic_long count;
};

static char l_report[kPathRoom];
static char l_call[kNameRoom];
static long l_number;
static int l_ever;
static size_t l_over;
static atomic_int l_on;
static atomic_int l_hit =
    kNone; /* descriptor of a call that was failed, -1 for one without; the output's stays */
static struct Call l_any = {"any", 0};

/* Each call has a record in a section of its own, so that the report can walk them. */
#define RECORD(name)                          \
    static struct Call l_##name = {#name, 0}; \
    __attribute__((used, section("sweep_calls"))) static struct Call *const l_at_##name = &l_##name;
extern struct Call *const __start_sweep_calls[];
extern struct Call *const __stop_sweep_calls[];

static int _wanted(const struct Call *call, size_t size, long number) {
    return strcmp(l_call, call->name) == 0 && size >= l_over &&
           (number == l_number || (number > l_number && l_ever));
}

/* Whether this call is to fail; counts it. size: of an allocation, else 0. */
static int _fails(struct Call *call, size_t size, int fd) {
    if (!l_on) {
        return 0;
    }
    const int own = _wanted(call, size, ++call->count);
    if (!own && (size == 0 || !_wanted(&l_any, size, ++l_any.count))) {
        return 0;
    }
    l_hit = l_hit == STDOUT_FILENO ? STDOUT_FILENO : fd;
    return 1;
}

/* The next library's function of that name. */
#define NEXT(name)                                   \
    static __typeof__(&name) next;                   \
    if (next == NULL) {                              \
        *(void **)(&next) = dlsym(RTLD_NEXT, #name); \
    }

/* A call with a fixed list of arguments. */
#define CALL(result, name, parameters, arguments, failed, code, fd) \
    RECORD(name)                                                    \
    result name parameters {                                        \
        NEXT(name)                                                  \
        if (_fails(&l_##name, 0, fd)) {                             \
            errno = code;                                           \
            return failed;                                          \
        }                                                           \
        return next arguments;                                      \
    }

/* A call that closes: where it is to fail, it has closed all the same. */
#define CLOSING(name, type)                                           \
    RECORD(name)                                                      \
    int name(type what) {                                             \
        NEXT(name)                                                    \
        const int result = next(what);                                \
        return _fails(&l_##name, 0, -1) ? (errno = EIO, -1) : result; \
    }

/* A call whose last argument is optional. */
#define VARIADIC(name, first, type, code, fd)                               \
    RECORD(name)                                                            \
    int name(first what, int second, ...) {                                 \
        NEXT(name)                                                          \
        va_list rest;                                                       \
        va_start(rest, second);                                             \
        const type last = va_arg(rest, type); /* garbage where not given */ \
        va_end(rest);                                                       \
        if (_fails(&l_##name, 0, fd)) {                                     \
            errno = code;                                                   \
            return -1;                                                      \
        }                                                                   \
        return next(what, second, last);                                    \
    }

/* Allocations. dlsym may allocate while it looks for the allocator: that comes from here, and stays. */
static _Alignas(max_align_t) char l_early[kEarlyRoom];
static size_t l_early_used;
static __thread int l_searching;

static void *_early(size_t size) {
    const size_t whole = (size + sizeof(max_align_t) - 1) / sizeof(max_align_t) * sizeof(max_align_t);
    void *const memory = l_early + l_early_used;
    l_early_used += whole;
    return l_early_used <= sizeof l_early ? memory : NULL;
}

#define ALLOCATOR(name, parameters, arguments, size, early)   \
    RECORD(name)                                              \
    void *name parameters {                                   \
        if (l_searching) {                                    \
            return early;                                     \
        }                                                     \
        l_searching = 1;                                      \
        NEXT(name)                                            \
        l_searching = 0;                                      \
        if (_fails(&l_##name, (size) > 0 ? (size) : 1, -1)) { \
            errno = ENOMEM;                                   \
            return NULL;                                      \
        }                                                     \
        return next arguments;                                \
    }
ALLOCATOR(malloc, (size_t size), (size), size, _early(size))
ALLOCATOR(calloc, (size_t number, size_t each), (number, each), number *each, _early(number *each))
ALLOCATOR(realloc, (void *memory, size_t size), (memory, size), size, NULL)

void free(void *memory) {
    if ((char *)memory >= l_early && (char *)memory < l_early + sizeof l_early) {
        return;
    }
    NEXT(free)
    next(memory);
}

/* Files. */
VARIADIC(open, const char *, mode_t, EMFILE, -1)
VARIADIC(open64, const char *, mode_t, EMFILE, -1)
/* Without the descriptor: a failed fcntl does not excuse an empty standard output. */
VARIADIC(fcntl, int, long, ENOLCK, -1)
VARIADIC(fcntl64, int, long, ENOLCK, -1)
CLOSING(close, int)
CLOSING(fclose, FILE *)
CALL(FILE *, fopen, (const char *path, const char *mode), (path, mode), NULL, EMFILE, -1)
CALL(FILE *, fopen64, (const char *path, const char *mode), (path, mode), NULL, EMFILE, -1)
CALL(FILE *, fdopen, (int fd, const char *mode), (fd, mode), NULL, ENOMEM, fd)
CALL(size_t, fwrite, (const void *bytes, size_t size, size_t number, FILE *file), (bytes, size, number, file),
     0, ENOSPC, fileno(file))
CALL(DIR *, opendir, (const char *path), (path), NULL, EMFILE, -1)
CALL(ssize_t, read, (int fd, void *buffer, size_t size), (fd, buffer, size), -1, EIO, fd)
CALL(ssize_t, write, (int fd, const void *buffer, size_t size), (fd, buffer, size), -1, ENOSPC, fd)
CALL(ssize_t, writev, (int fd, const struct iovec *parts, int number), (fd, parts, number), -1, EPIPE, fd)
CALL(ssize_t, pwritev, (int fd, const struct iovec *parts, int number, off_t at), (fd, parts, number, at), -1,
     ENOSPC, fd)
CALL(ssize_t, pread64, (int fd, void *buffer, size_t size, off64_t at), (fd, buffer, size, at), -1, EIO, fd)
CALL(ssize_t, pwrite64, (int fd, const void *buffer, size_t size, off64_t at), (fd, buffer, size, at), -1,
     ENOSPC, fd)
CALL(int, fstat, (int fd, struct stat *status), (fd, status), -1, EIO, fd)
CALL(int, stat, (const char *path, struct stat *status), (path, status), -1, EACCES, -1)
CALL(int, lstat, (const char *path, struct stat *status), (path, status), -1, EACCES, -1)
CALL(int, access, (const char *path, int mode), (path, mode), -1, EACCES, -1)
CALL(int, ftruncate, (int fd, off_t size), (fd, size), -1, EIO, fd)
CALL(int, ftruncate64, (int fd, off64_t size), (fd, size), -1, EIO, fd)
CALL(int, fsync, (int fd), (fd), -1, EIO, fd)
CALL(int, fdatasync, (int fd), (fd), -1, EIO, fd)
CALL(int, fchmod, (int fd, mode_t mode), (fd, mode), -1, EPERM, fd)
CALL(int, fchown, (int fd, uid_t user, gid_t group), (fd, user, group), -1, EPERM, fd)
CALL(int, rename, (const char *from, const char *to), (from, to), -1, ENOSPC, -1)
CALL(int, unlink, (const char *path), (path), -1, EACCES, -1)
CALL(int, mkdir, (const char *path, mode_t mode), (path, mode), -1, ENOSPC, -1)
CALL(int, flock, (int fd, int operation), (fd, operation), -1, ENOLCK, fd)
CALL(int, dup2, (int from, int to), (from, to), -1, EBUSY, from)

/* Sockets and waits. The C library declares addresses as a union of pointers, which fits these. */
#pragma GCC diagnostic ignored "-Wpedantic"
CALL(int, socket, (int domain, int type, int protocol), (domain, type, protocol), -1, EMFILE, -1)
CALL(int, connect, (int fd, const struct sockaddr *to, socklen_t size), (fd, to, size), -1, ECONNREFUSED, fd)
CALL(int, bind, (int fd, const struct sockaddr *to, socklen_t size), (fd, to, size), -1, EADDRINUSE, fd)
CALL(int, setsockopt, (int fd, int level, int name, const void *value, socklen_t size),
     (fd, level, name, value, size), -1, ENOMEM, fd)
CALL(ssize_t, send, (int fd, const void *bytes, size_t size, int flags), (fd, bytes, size, flags), -1, EPIPE,
     fd)
CALL(ssize_t, sendto,
     (int fd, const void *bytes, size_t size, int flags, const struct sockaddr *to, socklen_t length),
     (fd, bytes, size, flags, to, length), -1, ENOBUFS, fd)
CALL(ssize_t, recv, (int fd, void *bytes, size_t size, int flags), (fd, bytes, size, flags), -1, ECONNRESET,
     fd)
CALL(ssize_t, recvfrom,
     (int fd, void *bytes, size_t size, int flags, struct sockaddr *from, socklen_t *length),
     (fd, bytes, size, flags, from, length), -1, ENOMEM, fd)
/* A look that does not wait is never interrupted: who asks again then, as libcurl does, would go on. */
CALL(int, poll, (struct pollfd * fds, nfds_t number, int wait), (fds, number, wait), -1,
     wait == 0 ? ENOMEM : EINTR, -1)
CALL(int, usleep, (useconds_t time), (time), -1, EINTR, -1)

/* An interrupted sleep tells what is left: here nothing, or who sleeps on for it would never wake. */
RECORD(nanosleep)
int nanosleep(const struct timespec *time, struct timespec *left) {
    NEXT(nanosleep)
    if ((time->tv_sec != 0 || time->tv_nsec != 0) && _fails(&l_nanosleep, 0, -1)) {
        if (left != NULL) {
            *left = (struct timespec){0, 0};
        }
        errno = EINTR;
        return -1;
    }
    return next(time, left);
}

/* The rest of the system. */
CALL(int, pthread_create, (pthread_t * thread, const pthread_attr_t *how, void *(*run)(void *), void *with),
     (thread, how, run, with), EAGAIN, EAGAIN, -1)
CALL(int, pthread_attr_init, (pthread_attr_t * attributes), (attributes), ENOMEM, ENOMEM, -1)
CALL(int, sigaction, (int number, const struct sigaction *action, struct sigaction *old),
     (number, action, old), -1, EINVAL, -1)
CALL(int, system, (const char *command), (command), -1, EAGAIN, -1)
CALL(ssize_t, getrandom, (void *bytes, size_t size, unsigned flags), (bytes, size, flags), -1, ENOSYS, -1)
CALL(struct tm *, localtime_r, (const time_t *time, struct tm *parts), (time, parts), NULL, EOVERFLOW, -1)

static long _take(const char *name, char *text, size_t room) {
    const char *const value = getenv(name);
    if (value != NULL && strlen(value) < room) {
        memcpy(text, value, strlen(value) + 1);
    }
    unsetenv(name);
    return atol(text);
}

static void _say(int fd, const char *kind, const char *text, long number) {
    char line[kPathRoom + kNameRoom + kNameRoom];
    const int size = snprintf(line, sizeof line, "%s %s %ld\n", kind, text, number);
    syscall(SYS_write, fd, line, (size_t)size);
}

__attribute__((destructor)) static void _end(void) {
    l_on = 0;
    const int fd =
        (int)syscall(SYS_openat, AT_FDCWD, l_report, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) {
        return;
    }
    for (struct Call *const *call = __start_sweep_calls; call < __stop_sweep_calls; ++call) {
        if ((*call)->count > 0) {
            _say(fd, "call", (*call)->name, (*call)->count);
        }
    }
    _say(fd, "call", l_any.name, l_any.count);
    if (l_hit != kNone) {
        _say(fd, "hit", "-", l_hit);
    }
    for (int each = STDERR_FILENO + 1; each <= kLastDescriptor; ++each) {
        char link[kNameRoom];
        char target[kPathRoom];
        snprintf(link, sizeof link, "/proc/self/fd/%d", each);
        const long size =
            each == fd ? -1 : syscall(SYS_readlinkat, AT_FDCWD, link, target, sizeof target - 1);
        if (size >= 0) {
            target[size] = '\0';
            _say(fd, "open", target, each);
        }
    }
    _say(fd, "end", "-", 0);
    syscall(SYS_close, fd);
}

/* For a program that would wait for ever, as one does for the restart of its device. */
static void _leave(int number) {
    (void)number;
    _end();
    _exit(0);
}

__attribute__((constructor)) static void _begin(void) {
    char number[3][kNameRoom] = {"", "", ""};
    _take("SWEEP_REPORT", l_report, sizeof l_report);
    _take("SWEEP_CALL", l_call, sizeof l_call);
    l_number = _take("SWEEP_NUMBER", number[0], kNameRoom);
    l_ever = (int)_take("SWEEP_EVER", number[1], kNameRoom);
    l_over = (size_t)_take("SWEEP_OVER", number[2], kNameRoom);
    unsetenv("LD_PRELOAD");
    signal(SIGUSR2, _leave);
    syscall(SYS_faccessat, AT_FDCWD, "/dev/.sweep", F_OK);
    l_on = 1;
}
