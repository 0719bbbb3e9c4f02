#include "unix_socket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace emulator {

bool read_all(int fd, std::string &buffer) {
    for (size_t done = 0; done < buffer.size();) {
        const ssize_t size = read(fd, buffer.data() + done, buffer.size() - done);
        if (size <= 0 && !(size < 0 && errno == EINTR)) {
            buffer.resize(done);
            return false;
        }
        done += size > 0 ? static_cast<size_t>(size) : 0;
    }
    return true;
}

void write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t size = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (size <= 0 && errno != EINTR) {
            return;
        }
        bytes.remove_prefix(size > 0 ? static_cast<size_t>(size) : 0);
    }
}

sockaddr_un socket_address(std::string_view path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

Descriptor bound_socket(int type, const std::string &path) {
    const sockaddr_un address = socket_address(path);
    unlink(path.c_str());
    Descriptor fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (!fd.ok() || bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return fd;
}

}  // namespace emulator
