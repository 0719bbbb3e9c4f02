// Owners: each holds one resource of the system and gives it back when its scope ends.
// One header for all device code and the reference platform, so that no path closes, frees or unlocks by
// hand. Handing a resource over to C is a visible release().
#pragma once

#include <cjson/cJSON.h>
#include <dirent.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

/// Owns one descriptor. Who only uses it takes the bare int from get().
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    UniqueFd &operator=(const UniqueFd &) = delete;
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

/// Turns a release function of C into a deleter of unique_ptr that takes no room.
template <auto kRelease>
struct Releaser {
    template <class T>
    void operator()(T *resource) const {
        kRelease(resource);
    }
};

using HeapText = std::unique_ptr<char, Releaser<free>>;
using HeapBytes = std::unique_ptr<unsigned char, Releaser<free>>;
using JsonTree = std::unique_ptr<cJSON, Releaser<cJSON_Delete>>;
using JsonText = std::unique_ptr<char, Releaser<cJSON_free>>;  // what cJSON_Print returned
using Directory = std::unique_ptr<DIR, Releaser<closedir>>;
using UniqueFile = std::unique_ptr<FILE, Releaser<fclose>>;

/// Holds a mutex for the length of its scope.
class LockHeld {
public:
    explicit LockHeld(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    LockHeld(const LockHeld &) = delete;
    LockHeld &operator=(const LockHeld &) = delete;
    ~LockHeld() { pthread_mutex_unlock(mutex_); }

private:
    pthread_mutex_t *mutex_;
};
