// The device around the code under test, in this process: platform libraries, libcurl, broker and daemon that
// answer with the bytes under test, a shell that looks at commands instead of running them, and no waiting.
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "cloud_curl.h"
#include "cloud_path.h"
#include "descriptor.h"
#include "fuzz.h"
#include "rsa.h"
#include "unix_socket.h"
#include "wrapper.h"

namespace {

using emulator::Descriptor;

bool l_running = false;  // while it is false, libFuzzer itself calls what is replaced here
fuzz::Fault l_fault;
bool l_failed = false;
long l_clockMs = 0;
std::string l_records;
std::string l_broker;
std::vector<Descriptor> l_peers;  // the broker's ends
std::string l_daemon;

struct {
    double length = 0;
    std::string content;
    std::string pieces;
    bool head = false;
    size_t from = 0;
    size_t (*write)(char *, size_t, size_t, void *) = nullptr;
    void *stream = nullptr;
} l_image;

void _require(bool done, const char *what) {
    if (!done) {
        perror(what);
        exit(1);
    }
}

// Whether this call of the code under test is the one that fails.
bool _fails(int code) {
    if (!l_running || l_fault.call == 0 || (l_fault.call > 1 && --l_fault.call > 0)) {
        return false;
    }
    l_fault.call = l_fault.for_ever ? 1 : 0;
    l_failed = true;
    errno = code;
    return true;
}

// The lowest free descriptor: it rises when one is left open.
int _next_descriptor() {
    return Descriptor(dup(0)).get();
}

// libcurl declares its two variadic functions with an enumeration before the dots, and so do these.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs"
CURLcode _set_option(CURL * /*curl*/, CURLoption option, ...) {
    va_list arguments;
    va_start(arguments, option);
    if (option == CURLOPT_NOBODY) {
        l_image.head = va_arg(arguments, long) != 0;
    } else if (option == CURLOPT_RESUME_FROM) {
        l_image.from = static_cast<size_t>(va_arg(arguments, long));
    } else if (option == CURLOPT_WRITEFUNCTION) {
        l_image.write = va_arg(arguments, decltype(l_image.write));
    } else if (option == CURLOPT_WRITEDATA) {
        l_image.stream = va_arg(arguments, void *);
    }
    va_end(arguments);
    return CURLE_OK;
}

CURLcode _get_info(CURL * /*curl*/, CURLINFO info, ...) {
    va_list arguments;
    va_start(arguments, info);
    *va_arg(arguments, double *) = l_image.length;
    va_end(arguments);
    return CURLE_OK;
}
#pragma GCC diagnostic pop

// A server that sends the right bytes, over a line that may fail: each byte of `pieces` is the size of what
// comes next, or from 200 on how the transfer ends.
CURLcode _perform(CURL * /*curl*/) {
    size_t sent = l_image.from;
    while (!l_image.head && !l_image.pieces.empty()) {
        const auto step = static_cast<unsigned char>(l_image.pieces.front());
        l_image.pieces.erase(0, 1);
        if (step >= 200) {
            return static_cast<CURLcode>(step - 200);
        }
        if (sent > l_image.content.size()) {
            return CURLE_RANGE_ERROR;
        }
        std::string piece = l_image.content.substr(sent, step);
        sent += piece.size();
        if (l_image.write(piece.data(), 1, piece.size(), l_image.stream) != piece.size()) {
            return CURLE_WRITE_ERROR;
        }
    }
    return CURLE_OK;
}

// What the shell would make of the argument: plain characters, or one text in quotes.
bool _is_one_word(std::string_view text) {
    if (text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") ==
        std::string_view::npos) {
        return true;
    }
    bool quoted = false;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\'') {
            quoted = !quoted;
        } else if (!quoted && !(text[i] == '\\' && text.substr(i + 1, 1) == "'" && ++i > 0)) {
            return false;
        }
    }
    return !quoted;
}

}  // namespace

namespace fuzz {

std::vector<Target> &targets() {
    static std::vector<Target> all;
    return all;
}

void enter() {
    const bool root = geteuid() == 0;
    _require(unshare(CLONE_NEWNS | (root ? 0 : CLONE_NEWUSER)) == 0, "unshare");
    _require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount /");
    _require(mount("none", "/tmp", "tmpfs", 0, nullptr) == 0, "mount /tmp");
    static_cast<void>(mount("/dev/null", kConsolePath, nullptr, MS_BIND, nullptr));  // where there is one
    static_cast<void>(signal(SIGPIPE, SIG_IGN));
    cJSON_Hooks memory{malloc, free};  // so that its allocations are among those that fail
    cJSON_InitHooks(&memory);
}

bool run(const Target &target, std::string_view input, Fault fault) {
    if (fcntl(STDIN_FILENO, F_GETFD) < 0) {  // a lost broker closes descriptor 0
        _require(open("/dev/null", O_RDWR | O_CLOEXEC) == STDIN_FILENO, "/dev/null");
    }
    static int before = _next_descriptor();
    set_broker("");
    fill_store("");
    set_image(-1, "", "");
    l_clockMs = 0;
    l_fault = fault;
    l_failed = false;
    l_running = true;
    target.run(input);
    l_running = false;
    l_peers.clear();
    FUZZ_HOLDS(_next_descriptor() <= before);
    return l_failed;
}

bool failed() {
    return l_failed;
}

void calm() {
    l_fault = {};
}

void fail(const char *file, int line, const char *what) {
    fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
    abort();
}

std::string cut(std::string_view &input) {
    const std::string part(input.substr(0, input.find('\0')));
    input.remove_prefix(std::min(part.size() + 1, input.size()));
    return part;
}

unsigned char cut_byte(std::string_view &input) {
    const unsigned char byte = input.empty() ? 0 : static_cast<unsigned char>(input.front());
    input.remove_prefix(input.empty() ? 0 : 1);
    return byte;
}

void put_file(const char *path, std::string_view content) {
    std::ofstream(path, std::ios::binary) << content;
}

std::string file(const char *path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void fill_store(std::string_view records) {
    l_records = records;
}

void set_broker(std::string bytes) {
    l_broker = std::move(bytes);
}

void set_daemon(std::string reply) {
    l_daemon = std::move(reply);
}

void set_image(double length, std::string content, std::string pieces) {
    l_image = {};
    l_image.length = length;
    l_image.content = std::move(content);
    l_image.pieces = std::move(pieces);
}

}  // namespace fuzz

const CurlApi *cloud_curl() {
    static constexpr CurlApi kApi{
        [](long /*flags*/) { return CURLE_OK; },
        [] {},
        []() -> CURL * { return &l_image; },
        [](CURL * /*curl*/) {},
        _set_option,
        _get_info,
        _perform,
        [](CURLcode /*code*/) { return "scripted"; },
    };
    return &kApi;
}

extern "C" {

int wrpOpGrpDo(WrpOpEntry *entries, int length, int direction) {
    for (size_t i = 0; direction == WRP_READ && i < static_cast<size_t>(length) / sizeof *entries; ++i) {
        memcpy(reinterpret_cast<void *>(entries[i].output), l_records.data(),
               std::min<size_t>(l_records.size(), entries[i].outputLength));
    }
    return 0;
}

int wrpOpDo(unsigned, void *, unsigned, void *, unsigned, int) {
    return -1;
}
int wrpGetTransID(int) {
    return -1;
}
int wrpDoCmdWithoutID(unsigned, void *, unsigned, void **, unsigned *) {
    return -1;
}
int wrpWithdrawTransID() {
    return -1;
}
int librsa_get_keys(char *, char *, char *) {
    return 0;
}
char *librsa_decrypt(const char *text, char *, char *, char *) {
    return strdup(text);
}
char *librsa_encrypt(const char *text, char *, char *) {
    return strdup(text);
}

int __real_system(const char *command);
int __wrap_system(const char *command) {
    if (!l_running) {
        return __real_system(command);
    }
    constexpr std::string_view kBegin = "sh /usr/bin/deleteToken.sh ";
    const std::string_view text = command;
    FUZZ_HOLDS(text.starts_with(kBegin) && text.ends_with(" &"));
    FUZZ_HOLDS(_is_one_word(text.substr(kBegin.size(), text.size() - kBegin.size() - 2)));
    return 0;
}

int __wrap_connect(int fd, const sockaddr *, socklen_t) {
    if (_fails(ECONNREFUSED)) {
        return -1;
    }
    int ends[2];
    _require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    emulator::write_all(ends[0], l_broker);
    shutdown(ends[0], SHUT_WR);
    l_peers.emplace_back(ends[0]);
    _require(dup3(ends[1], fd, O_CLOEXEC) == fd && close(ends[1]) == 0, "dup3");
    return 0;
}

ssize_t __real_sendto(int, const void *, size_t, int, const sockaddr *, socklen_t);
ssize_t __wrap_sendto(int, const void *, size_t size, int, const sockaddr *, socklen_t) {
    const Descriptor daemon(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un own = emulator::socket_address(kOwnSocketPath);
    __real_sendto(daemon.get(), l_daemon.data(), l_daemon.size(), MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr *>(&own), sizeof own);
    return static_cast<ssize_t>(size);
}

int __real_gettimeofday(timeval *, void *);
int __wrap_gettimeofday(timeval *now, void *zone) {
    if (!l_running) {
        return __real_gettimeofday(now, zone);
    }
    ++l_clockMs;
    *now = {l_clockMs / 1000, l_clockMs % 1000 * 1000};
    return 0;
}

int __real_usleep(useconds_t);
int __wrap_usleep(useconds_t time) {
    l_clockMs += time / 1000;
    return l_running ? 0 : __real_usleep(time);
}

int __real_poll(pollfd *, nfds_t, int);
int __wrap_poll(pollfd *watched, nfds_t count, int time) {
    if (_fails(EINTR)) {
        l_fault = {};  // with EINTR for ever the program would wait for ever
        return -1;
    }
    return __real_poll(watched, count, time);
}

// No handlers: each run would add one more, and they would run when the fuzzer itself ends.
int __real_atexit(void (*)());
int __wrap_atexit(void (*function)()) {
    return l_running ? 0 : __real_atexit(function);
}
int __real_sigaction(int, const struct sigaction *, struct sigaction *);
int __wrap_sigaction(int number, const struct sigaction *action, struct sigaction *before) {
    return l_running ? 0 : __real_sigaction(number, action, before);
}

int __wrap_nanosleep(const timespec *, timespec *) {
    return 0;
}

// The calls that can fail.
#define FAILING(type, name, code, value, parameters, arguments) \
    type __real_##name parameters;                              \
    type __wrap_##name parameters {                             \
        return _fails(code) ? value : __real_##name arguments;  \
    }
FAILING(void *, malloc, ENOMEM, nullptr, (size_t size), (size))
FAILING(void *, calloc, ENOMEM, nullptr, (size_t count, size_t size), (count, size))
FAILING(int, open, EMFILE, -1, (const char *path, int flags, mode_t mode), (path, flags, mode))
FAILING(ssize_t, read, EIO, -1, (int fd, void *data, size_t size), (fd, data, size))
FAILING(ssize_t, writev, EPIPE, -1, (int fd, const iovec *parts, int count), (fd, parts, count))
FAILING(ssize_t, pwritev, ENOSPC, -1, (int fd, const iovec *parts, int count, off_t at),
        (fd, parts, count, at))
FAILING(int, fstat, EIO, -1, (int fd, struct stat *status), (fd, status))
FAILING(int, lstat, EACCES, -1, (const char *path, struct stat *status), (path, status))
FAILING(int, rename, EACCES, -1, (const char *from, const char *to), (from, to))
FAILING(int, mkdir, ENOSPC, -1, (const char *path, mode_t mode), (path, mode))
FAILING(int, socket, EMFILE, -1, (int domain, int type, int protocol), (domain, type, protocol))
FAILING(int, bind, EADDRINUSE, -1, (int fd, const sockaddr *address, socklen_t size), (fd, address, size))
FAILING(FILE *, fdopen, ENOMEM, nullptr, (int fd, const char *mode), (fd, mode))
#undef FAILING

}  // extern "C"
