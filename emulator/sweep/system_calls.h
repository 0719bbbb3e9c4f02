// The system calls that a sweep strikes, and the errors that each documents.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace emulator::sweep {

struct SystemCall {
    const char *name;
    const char *errors;  ///< divided by blanks
};

// Reads and writes have EAGAIN only where a time limit or a non-blocking descriptor may bring it. Calls that
// cannot fail, and those whose failure ends the program (its own execve), are not here.
inline constexpr std::array kSystemCalls{
    SystemCall{"access", "EACCES EIO ELOOP ENOMEM"},
    SystemCall{"bind", "EADDRINUSE EACCES ENOMEM EROFS"},
    SystemCall{"chmod", "EPERM EIO EROFS"},
    SystemCall{"chown", "EPERM EIO EROFS"},
    SystemCall{"clone", "EAGAIN ENOMEM"},
    SystemCall{"clone3", "EAGAIN ENOMEM"},
    SystemCall{"clock_nanosleep", "EINTR"},
    SystemCall{"close", "EINTR EIO"},
    SystemCall{"connect", "ECONNREFUSED EACCES EAGAIN EINTR ENOENT ETIMEDOUT"},
    SystemCall{"dup2", "EBUSY EINTR EMFILE"},
    SystemCall{"faccessat", "EACCES EIO ELOOP ENOMEM"},
    SystemCall{"fchmod", "EPERM EIO EROFS"},
    SystemCall{"fchown", "EPERM EIO EROFS"},
    SystemCall{"fcntl", "EACCES EAGAIN EINTR ENOLCK EMFILE"},
    SystemCall{"fdatasync", "EIO EINTR ENOSPC"},
    SystemCall{"flock", "EINTR ENOLCK EWOULDBLOCK"},
    SystemCall{"fstat", "EIO ENOMEM EOVERFLOW"},
    SystemCall{"fsync", "EIO EINTR ENOSPC"},
    SystemCall{"ftruncate", "EIO EINTR EFBIG"},
    SystemCall{"getdents64", "EIO ENOENT"},
    SystemCall{"lseek", "EIO EOVERFLOW"},
    SystemCall{"lstat", "EACCES EIO ENOMEM"},
    SystemCall{"mkdir", "EACCES ENOSPC EROFS EEXIST"},
    SystemCall{"mmap", "ENOMEM EAGAIN"},
    SystemCall{"mprotect", "ENOMEM EACCES"},
    SystemCall{"newfstatat", "EACCES EIO ELOOP ENOMEM"},
    SystemCall{"openat", "EACCES EINTR EIO ELOOP EMFILE ENFILE ENOENT ENOMEM ENOSPC EROFS"},
    SystemCall{"poll", "EINTR ENOMEM"},
    SystemCall{"pread64", "EINTR EIO"},
    SystemCall{"preadv", "EINTR EIO"},
    SystemCall{"pselect6", "EINTR ENOMEM"},
    SystemCall{"pwrite64", "EINTR EIO ENOSPC EFBIG"},
    SystemCall{"pwritev", "EINTR EIO ENOSPC EFBIG"},
    SystemCall{"read", "EINTR EIO EAGAIN"},
    SystemCall{"recvfrom", "EINTR EAGAIN ECONNRESET ENOMEM"},
    SystemCall{"recvmsg", "EINTR EAGAIN ECONNRESET ENOMEM"},
    SystemCall{"rename", "EACCES EIO ENOSPC EROFS"},
    SystemCall{"rt_sigaction", "EINVAL"},
    SystemCall{"rmdir", "EACCES EIO EROFS"},
    SystemCall{"select", "EINTR ENOMEM"},
    SystemCall{"sendmsg", "EINTR EAGAIN ECONNRESET EPIPE ENOBUFS"},
    SystemCall{"sendto", "EINTR EAGAIN ECONNRESET EPIPE ENOBUFS"},
    SystemCall{"setsockopt", "ENOMEM ENOBUFS"},
    SystemCall{"socket", "EMFILE ENFILE ENOMEM EACCES"},
    SystemCall{"stat", "EACCES EIO ENOMEM"},
    SystemCall{"unlink", "EACCES EIO EROFS"},
    SystemCall{"wait4", "EINTR ECHILD"},
    SystemCall{"write", "EAGAIN EFBIG EINTR EIO ENOSPC EPIPE"},
    SystemCall{"writev", "EAGAIN EINTR EIO ENOSPC EPIPE"},
};

/// The names, as `strace` takes a list; those that this processor lacks are passed over.
[[nodiscard]] inline std::string system_call_names() {
    std::string names;
    for (const SystemCall &call : kSystemCalls) {
        names += (names.empty() ? "?" : ",?") + std::string(call.name);
    }
    return names;
}

}  // namespace emulator::sweep
