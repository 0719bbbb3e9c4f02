// The owner of a descriptor: closes it when its scope ends. Written apart from the device's owners, like
// everything of the emulator.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace emulator {

class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        reset(other.release());
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() { reset(); }
    bool operator!() const = delete;  // 0 is a good descriptor: ask ok()

    [[nodiscard]] bool ok() const { return fd_ >= 0; }
    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        const int saved = errno;  // closing never hides the error on its way out
        if (fd_ >= 0) {
            close(fd_);  // never repeated: after EINTR it is gone already
        }
        fd_ = fd;
        errno = saved;
    }

private:
    int fd_;
};

}  // namespace emulator
