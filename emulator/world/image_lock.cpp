#include "image_lock.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace emulator {
namespace {

namespace fs = std::filesystem;

bool _same_file(const struct stat &left, const struct stat &right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

// Whether a process has one of the files open: then it is at work.
void _find_holders(std::vector<ImageLock> &locks, const std::vector<struct stat> &files) {
    std::error_code gone;  // processes end while their folder is looked at
    for (const auto &process : fs::directory_iterator("/proc", gone)) {
        if (isdigit(process.path().filename().c_str()[0]) == 0) {
            continue;
        }
        for (const auto &open : fs::directory_iterator(process.path() / "fd", gone)) {
            struct stat file {};
            if (stat(open.path().c_str(), &file) != 0) {
                continue;
            }
            for (size_t i = 0; i < locks.size(); ++i) {
                locks[i].held = locks[i].held || (locks[i].there && _same_file(file, files[i]));
            }
        }
    }
}

}  // namespace

std::vector<ImageLock> image_locks() {
    std::vector<ImageLock> locks{{"download", "/tmp/cloud_dl_img.lock"},
                                 {"update", "/tmp/cloud_up_img.lock"}};
    std::vector<struct stat> files(locks.size());
    for (size_t i = 0; i < locks.size(); ++i) {
        locks[i].there = stat(locks[i].path, &files[i]) == 0;
    }
    if (std::any_of(locks.begin(), locks.end(), [](const ImageLock &lock) { return lock.there; })) {
        _find_holders(locks, files);
    }
    return locks;
}

std::string left_over(const ImageLock &lock) {
    return std::string(lock.path) + " was left by a " + lock.command +
           " that was killed: nobody holds it, and no other " + lock.command + " begins. Remove it: rm " +
           lock.path;
}

}  // namespace emulator
