#include "cloud_localMsgTask.h"

#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "cloud_localMsgHandler.h"
#include "cloud_owner.h"
#include "cloud_path.h"
#include "cloud_util.h"

namespace {

constexpr mode_t kLockMode = 0444;

// The exclusive creation is the lock.
// @return an owner for _file_unlock; not ok() when the lock is held.
[[nodiscard]] UniqueFd _file_lock(const char *path) {
    UniqueFd lock(open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kLockMode));
    if (!lock.ok()) {
        CLOUD_LOG("Download/upgrade image lock, please wait.");
    }
    return lock;
}

void _file_unlock(UniqueFd lock, const char *path) {
    if (lock.get() == 0) {
        static_cast<void>(lock.release());  // Contract: descriptor 0 stays open.
    }
    lock.reset();
    unlink(path);
}

// @return false when the lock is held, and the handler has not run.
[[nodiscard]] bool _run_locked(const char *path, int (*handler)()) {
    UniqueFd lock = _file_lock(path);
    if (!lock.ok()) {
        return false;
    }
    handler();
    _file_unlock(std::move(lock), path);
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
