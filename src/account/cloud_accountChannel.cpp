// The datagram channel to the management daemon, and the one job that goes over it: kick-off.
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cloud_account.h"
#include "cloud_accountLog.h"
#include "cloud_kmpdWire.h"
#include "cloud_owner.h"
#include "cloud_path.h"

namespace {

constexpr timeval kSendTimeout{1, 0};
constexpr int kReplyWaitMs = 1000;

using HeapDatagram = std::unique_ptr<Datagram, Releaser<free>>;

HeapDatagram _allocate_datagram() {
    return HeapDatagram(static_cast<Datagram *>(calloc(1, sizeof(Datagram))));
}

template <size_t kSize>
sockaddr_un _address(const char (&path)[kSize]) {
    static_assert(kSize <= sizeof sockaddr_un::sun_path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, kSize);
    return address;
}

const sockaddr *_generic(const sockaddr_un &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

int _open_unix_sock() {
    UniqueFd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock.ok()) {
        MSG_LOG("failed to create unix socket: %s", strerror(errno));
        return -1;
    }
    unlink(kOwnSocketPath);  // left by a run that was killed
    const sockaddr_un own = _address(kOwnSocketPath);
    setsockopt(sock.get(), SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof kSendTimeout);
    if (bind(sock.get(), _generic(own), sizeof own) != 0) {
        MSG_LOG("failed to bind: %s", strerror(errno));
        return -1;
    }
    return sock.release();
}

void _close_unix_sock(int fd) {
    if (fd > 0) {  // Contract: descriptor 0 stays open.
        UniqueFd(fd).reset();
    }
    unlink(kOwnSocketPath);
}

int _send_unix_request(int fd, Datagram *msg) {
    if (fd < 0) {
        MSG_LOG("socket is invalid!\n");
        return -1;
    }
    if (msg == nullptr) {
        return -1;
    }
    const sockaddr_un daemon = _address(kDaemonSocketPath);
    datagram_close(&msg->head, strnlen(msg->payload, sizeof msg->payload));
    if (sendto(fd, msg, sizeof *msg, 0, _generic(daemon), sizeof daemon) < 0) {
        MSG_LOG("Send request failed. %s", strerror(errno));
        return -1;
    }
    return 0;
}

// The daemon's answer is awaited and not looked at. Contract: a failed wait counts as an answer.
int _recv_unix_response(int fd) {
    const HeapDatagram scratch = _allocate_datagram();
    if (scratch == nullptr) {
        return -1;
    }
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, kReplyWaitMs) != 0) {
        sockaddr_un source{};
        socklen_t length = sizeof source;
        // Without waiting, as there may be none.
        recvfrom(fd, scratch.get(), sizeof *scratch, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&source),
                 &length);
    }
    return 0;
}

int _send_kickoff_msg() {
    const HeapDatagram msg = _allocate_datagram();
    if (msg == nullptr) {
        return -1;
    }
    const int fd = _open_unix_sock();
    if (fd < 0) {
        return -1;
    }
    for (const KickoffStep &step : kKickoffSteps) {
        memset(msg.get(), 0, sizeof *msg);
        datagram_begin(&msg->head, step.kind);
        cstr_strncpy(msg->payload, step.payload, sizeof msg->payload);
        // Contract: a failed send does not end the sequence. The next message may find a daemon.
        static_cast<void>(_send_unix_request(fd, msg.get()));
        static_cast<void>(_recv_unix_response(fd));
    }
    _close_unix_sock(fd);
    return 0;
}

}  // namespace

int32_t cloud_msg_kickoff() {
    return _send_kickoff_msg();
}
