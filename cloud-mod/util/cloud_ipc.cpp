#include "cloud_ipc.h"

#include <kxcc.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "cloud_log.h"
#include "cloud_owner.h"
#include "cloud_wire.h"

namespace {

constexpr char kLogUnit[] = "../cloud-mod/util/cloud_ipc";  // Contract: with this path, alone of all units.

// What was transferred is reported as an int: a longer body could not be told from a failure.
constexpr uint32_t kLongestBody = INT32_MAX - 1;

struct Address {
    sockaddr_un socket{};
    socklen_t size = 0;  // counts the family and the path without a NUL
};

// Fails with ENAMETOOLONG rather than cutting the path: a cut one would name some other socket.
[[nodiscard]] bool _set_address(Address *address, const char *path) {
    const size_t length = strlen(path);
    if (length > sizeof(address->socket.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    address->socket.sun_family = AF_UNIX;
    memcpy(address->socket.sun_path, path, length);
    address->size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    return true;
}

template <auto kCall>
[[nodiscard]] bool _with_address(int fd, const char *path) {
    Address address;
    return _set_address(&address, path) &&
           kCall(fd, reinterpret_cast<const sockaddr *>(&address.socket), address.size) == 0;
}

// Writes header and body as one stream, both in the same system call. Ends early when a write fails
// or writes nothing: *last is the result of the last write.
[[nodiscard]] size_t _write_frame(int fd, const FrameHeader &header, const char *body, size_t bodySize,
                                  ssize_t *last) {
    size_t done = 0;
    while (done < header.size() + bodySize) {
        const size_t headerDone = std::min(done, header.size());
        const size_t bodyDone = done - headerDone;
        const std::array<iovec, 2> rest{{
            {const_cast<uint8_t *>(header.data()) + headerDone, header.size() - headerDone},
            {const_cast<char *>(body) + bodyDone, bodySize - bodyDone},
        }};
        *last = writev(fd, rest.data(), rest.size());
        if (*last <= 0) {
            break;
        }
        done += static_cast<size_t>(*last);
    }
    return done;
}

// How an unfinished transfer is logged: what was written, or -1 when it failed at the first byte.
[[nodiscard]] int _written(size_t count, ssize_t last) {
    return count == 0 && last < 0 ? -1 : static_cast<int>(count);
}

[[nodiscard]] ssize_t _read_in_time(int fd, void *buffer, size_t size) {
    const int ready = cloud_ipc_wait(fd, kReceiveWaitMs);
    if (ready == 0) {
        errno = ETIME;
    }
    return ready > 0 ? read(fd, buffer, size) : -1;
}

// Returns the count read, less than `size` when the peer closed or after a failure or time-out;
// -1 when nothing had been read before the failure.
// @param isHere  as a rule the bytes have come already: they are asked for without a wait first, which saves
// a call.
[[nodiscard]] ssize_t _read_all(int fd, void *buffer, size_t size, bool isHere) {
    size_t done = 0;
    while (done < size) {
        char *const at = static_cast<char *>(buffer) + done;
        ssize_t count = isHere ? recv(fd, at, size - done, MSG_DONTWAIT) : -1;
        if (!isHere || (count < 0 && errno == EAGAIN)) {
            count = _read_in_time(fd, at, size - done);
        }
        if (count < 0 && done == 0) {
            return -1;
        }
        if (count <= 0) {
            break;
        }
        done += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

[[nodiscard]] int32_t _receive_body(const char *call, int fd, uint32_t type, uint32_t length, char **body) {
    *body = length <= kLongestBody ? static_cast<char *>(malloc(static_cast<size_t>(length) + 1)) : nullptr;
    if (*body == nullptr) {
        CLOUD_ERROR_IN(call, "message string malloc error");
        return KXCC_ERROR_GENERAL;
    }
    const ssize_t count = _read_all(fd, *body, length, true);
    // Also a short body is a text for whoever looks at it.
    (*body)[count > 0 ? count : 0] = '\0';
    if (count != static_cast<ssize_t>(length)) {
        CLOUD_ERROR_IN(call, "message body receive error, n:%d", static_cast<int>(count));
        return KXCC_ERROR_GENERAL;
    }
    CLOUD_DEBUG_IN(call, "recv, type:%d, message:%s", static_cast<int>(type), *body);
    return KXCC_OK;
}

}  // namespace

int cloud_ipc_client_init(const char *path) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.ok()) {
        CLOUD_ERROR("socket create error, errno: %d:%s", errno, strerror(errno));
        return KXCC_ERROR_GENERAL;
    }
    if (!_with_address<connect>(fd.get(), path)) {
        CLOUD_ERROR("fail to connect the socket, errno:%d:%s", errno, strerror(errno));
        return KXCC_ERROR_SEND;
    }
    CLOUD_DEBUG("client init success, fd:%d", fd.get());
    return fd.release();
}

int cloud_ipc_server_init(const char *path) {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.ok()) {
        CLOUD_ERROR("socket create error, errno: %d", errno);
        return KXCC_ERROR_SERVER;
    }
    if (!_with_address<bind>(fd.get(), path)) {
        CLOUD_ERROR("fail to bind the socket, errno:%d:%s", errno, strerror(errno));
        return KXCC_ERROR_SERVER;
    }
    if (listen(fd.get(), kServerBacklog) != 0) {
        CLOUD_ERROR("fail to listen the socket, errno:%d", errno);
        return KXCC_ERROR_SERVER;
    }
    return fd.release();
}

int32_t cloud_ipc_send(int fd, uint32_t type, const char *text) {
    CLOUD_DEBUG("send to fd:%d, type:%d, message:%s", fd, static_cast<int>(type),
                text != nullptr ? text : "(null)");
    const size_t size = text != nullptr ? strlen(text) : 0;
    const FrameHeader header = frame_header(static_cast<uint16_t>(type), static_cast<uint32_t>(size));
    ssize_t last = 0;
    const size_t done = _write_frame(fd, header, text, size, &last);
    if (done < header.size()) {
        CLOUD_ERROR("write message header error, n:%d", _written(done, last));
        return KXCC_ERROR_SEND;
    }
    if (done < header.size() + size) {
        CLOUD_ERROR("write message error, n:%d", _written(done - header.size(), last));
        return KXCC_ERROR_SEND;
    }
    return KXCC_OK;
}

int32_t cloud_ipc_recv(int fd, uint32_t *type, char **body) {
    FrameHeader header{};
    const ssize_t count = _read_all(fd, header.data(), header.size(), false);
    if (count == 0) {
        return KXCC_ERROR_RECEIVE;  // the peer left between two messages, as it may
    }
    if (count != static_cast<ssize_t>(header.size())) {
        CLOUD_ERROR("message header receive error, n:%d", static_cast<int>(count));
        return KXCC_ERROR_RECEIVE;
    }
    if (frame_magic(header) != kFrameMagic) {
        CLOUD_ERROR("message header magic error");
        return KXCC_ERROR_GENERAL;
    }
    *type = frame_type(header);
    const uint32_t length = frame_length(header);
    if (length == 0) {
        CLOUD_DEBUG("recv, type:%d, message:(nil)", static_cast<int>(*type));
        return KXCC_OK;
    }
    return _receive_body(__func__, fd, *type, length, body);
}

int cloud_ipc_wait(int fd, int timeoutMs) {
    // Not select(): the library lives in other people's programs, where a descriptor may be past
    // the end of an fd_set.
    pollfd watched{fd, POLLIN, 0};
    const int ready = poll(&watched, 1, timeoutMs);
    if (ready > 0 && (watched.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return ready;
}
