#include "tap_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::string_view kAsideEnd = ".aside";  // the broker's socket meanwhile
constexpr std::string_view kFreshEnd = ".tap";    // the tap's, until it is ready

[[nodiscard]] sockaddr_un _address(std::string_view path, std::string_view end) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    if (!end.empty()) {
        memcpy(address.sun_path + path.size(), end.data(), end.size());
    }
    return address;
}

[[nodiscard]] const sockaddr *_generic(const sockaddr_un &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

[[nodiscard]] UniqueFd _socket() {
    return UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

[[nodiscard]] UniqueFd _connect(const sockaddr_un &address) {
    UniqueFd fd = _socket();
    if (fd.ok() && connect(fd.get(), _generic(address), sizeof address) != 0) {
        fd.reset();
    }
    return fd;
}

// Who listens there: a process number; 0 nobody.
[[nodiscard]] int _listener(const sockaddr_un &address) {
    const UniqueFd fd = _connect(address);
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (fd.ok() && getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0) {
        return credentials.pid != 0 ? credentials.pid : 1;
    }
    return !fd.ok() && errno == EAGAIN ? 1 : 0;
}

// A hold on the file itself, whatever becomes of its name.
[[nodiscard]] UniqueFd _hold(const char *path) {
    return UniqueFd(open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

[[nodiscard]] bool _is(int fd, const struct stat &file) {
    struct stat held {};
    return fd >= 0 && fstat(fd, &held) == 0 && held.st_dev == file.st_dev && held.st_ino == file.st_ino;
}

void _tell(const char *what, const char *path) {
    dprintf(STDERR_FILENO, "kxcc-tap: %s %s: %s\n", what, path, strerror(errno));
}

}  // namespace

bool TapSocket::fits(std::string_view path) {
    return !path.empty() && path.size() + kAsideEnd.size() < sizeof sockaddr_un::sun_path;
}

TapSocket::TapSocket(std::string_view path)
    : path_(_address(path, {})), aside_(_address(path, kAsideEnd)), fresh_(_address(path, kFreshEnd)) {}

bool TapSocket::_listen(const struct stat &model) {
    unlink(fresh_.sun_path);  // of a tap that was killed
    listening_ = _socket();
    // The mode is right from the start: nobody may connect who could not before.
    const mode_t before = umask(~model.st_mode & 0777U);
    const bool bound = listening_.ok() && bind(listening_.get(), _generic(fresh_), sizeof fresh_) == 0;
    const int error = errno;
    umask(before);
    errno = error;
    if (!bound || listen(listening_.get(), SOMAXCONN) != 0) {
        return false;
    }
    own_ = _hold(fresh_.sun_path);
    const bool owned = model.st_uid == geteuid() && model.st_gid == getegid();
    return own_.ok() && (owned || lchown(fresh_.sun_path, model.st_uid, model.st_gid) == 0);
}

TapSocket::Taken TapSocket::take() {
    struct stat model {};
    brokers_ = _hold(path_.sun_path);
    if (!brokers_.ok() && errno == ENOENT) {
        return Taken::kNoSocket;
    }
    if (!brokers_.ok() || fstat(brokers_.get(), &model) != 0 || !S_ISSOCK(model.st_mode)) {
        dprintf(STDERR_FILENO, "kxcc-tap: %s is no socket\n", path_.sun_path);
        return Taken::kFailed;
    }
    if (link(path_.sun_path, aside_.sun_path) != 0) {
        _tell("cannot take aside", path_.sun_path);
        return Taken::kFailed;
    }
    if (!_listen(model) || rename(fresh_.sun_path, path_.sun_path) != 0) {
        _tell("cannot take the place of", path_.sun_path);
        unlink(fresh_.sun_path);
        unlink(aside_.sun_path);
        return Taken::kFailed;
    }
    return Taken::kYes;
}

TapSocket::Found TapSocket::look() const {
    struct stat file {};
    if (lstat(path_.sun_path, &file) != 0 || !S_ISSOCK(file.st_mode)) {
        return Found::kNothing;
    }
    if (_is(own_.get(), file)) {
        return Found::kOurs;
    }
    return _is(brokers_.get(), file) ? Found::kBrokers : Found::kOther;
}

void TapSocket::give_back() {
    struct stat file {};
    if (lstat(aside_.sun_path, &file) != 0 || !_is(brokers_.get(), file)) {
        if (look() == Found::kOurs) {
            unlink(path_.sun_path);  // somebody took the broker's away: there is none
        }
        return;
    }
    if (look() != Found::kOurs) {
        unlink(aside_.sun_path);
    } else if (rename(aside_.sun_path, path_.sun_path) != 0) {
        _tell("cannot give back", path_.sun_path);
    }
}

UniqueFd TapSocket::connect_broker() const {
    // Clients may still have come to the tap when it has given the socket back.
    return _connect(look() == Found::kBrokers ? path_ : aside_);
}

TapSocket::Mended TapSocket::mend() const {
    struct stat file {};
    if (lstat(aside_.sun_path, &file) != 0 || !S_ISSOCK(file.st_mode)) {
        return Mended::kNothing;
    }
    const int here = _listener(path_);
    if (here != 0 && _listener(aside_) != 0) {
        dprintf(STDERR_FILENO, "kxcc-tap: a tap runs on %s: end process %d\n", path_.sun_path, here);
        return Mended::kRunning;
    }
    unlink(fresh_.sun_path);
    // Who listens at the path now is a broker that has started since: the old one's socket is nobody's.
    if ((here != 0 ? unlink(aside_.sun_path) : rename(aside_.sun_path, path_.sun_path)) != 0) {
        _tell("cannot give back", path_.sun_path);
        return Mended::kFailed;
    }
    dprintf(STDERR_FILENO, "kxcc-tap: %s is the broker's again\n", path_.sun_path);
    return Mended::kYes;
}
