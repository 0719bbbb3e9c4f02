#include "cloud_localMsgTask.h"

#include <fcntl.h>
#include <unistd.h>

#include "cloud_localMsgHandler.h"
#include "cloud_path.h"
#include "cloud_util.h"

namespace {

constexpr mode_t kLockMode = 0444;

// The exclusive creation is the lock.
// @return a descriptor for _file_unlock; negative when the lock is held; 0 for a null path, without a lock.
[[nodiscard]] int _file_lock(const char *path) {
    if (path == nullptr) {
        return 0;
    }
    const int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kLockMode);
    if (fd < 0) {
        CLOUD_LOG("Download/upgrade image lock, please wait.");
    }
    return fd;
}

void _file_unlock(int fd, const char *path) {
    if (fd > 0) {  // Contract: descriptor 0 stays open.
        close(fd);
    }
    if (path != nullptr) {
        unlink(path);
    }
}

// @return false when the lock is held, and the handler has not run.
[[nodiscard]] bool _run_locked(const char *path, int (*handler)()) {
    const int fd = _file_lock(path);
    if (fd < 0) {
        return false;
    }
    handler();
    _file_unlock(fd, path);
    return true;
}

}  // namespace

int cloud_localMsgTask(unsigned int code) {
    switch (code) {
        case kLocalCheck:
            fwCheckUpdateMsgHandler();
            break;
        case kLocalDownload:
            if (!_run_locked(kDownloadLockPath, fwDownloadMsgHandler)) {
                CLOUD_LOG("download image from cloud in progress");
            }
            break;
        case kLocalUpdate:
            if (!_run_locked(kUpgradeLockPath, fwUpdateMsgHander)) {
                CLOUD_LOG("upgrade image from cloud in progress");
            }
            break;
        default:
            CLOUD_LOG("invaild cloud message!\n");
            break;
    }
    CLOUD_LOG("cloud_localMsgTask end\n");
    return 0;
}
