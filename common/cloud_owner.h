// Owners: each holds one resource of the system and gives it back when its scope ends. Owners of secrets are
// in cloud_secret.h, those of one module's resource beside it. Device code and the reference platform release
// nothing else by hand, but for cmem_updateFirmwareBufFree, whose contract is to free the bare pointer that
// it is given. Handing a resource over to C is a visible release().
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

/// What clang's -Wthread-safety goes by; nothing for other compilers.
#if defined(__clang__)
#define CLOUD_THREAD(rule) __attribute__((rule))
#else
#define CLOUD_THREAD(rule)
#endif

/// A mutex that can be named beside what it guards: CLOUD_THREAD(guarded_by(mutex)).
struct CLOUD_THREAD(capability("mutex")) Mutex {
    pthread_mutex_t handle = PTHREAD_MUTEX_INITIALIZER;
};

/// Holds a mutex for the length of its scope.
class CLOUD_THREAD(scoped_lockable) LockHeld {
public:
    explicit LockHeld(Mutex *mutex) CLOUD_THREAD(acquire_capability(mutex)) : mutex_(mutex) {
        pthread_mutex_lock(&mutex_->handle);
    }
    LockHeld(const LockHeld &) = delete;
    LockHeld &operator=(const LockHeld &) = delete;
    ~LockHeld() CLOUD_THREAD(release_capability()) { pthread_mutex_unlock(&mutex_->handle); }

private:
    Mutex *mutex_;
};
