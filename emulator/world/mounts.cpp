#include "mounts.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

namespace emulator {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void _fail(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// A mount as /proc/self/mountinfo has it.
struct Mount {
    std::string place;
    unsigned long flags = 0;  // those that a remount would lose
};

std::vector<Mount> _mounts() {
    std::vector<Mount> mounts;
    std::ifstream file("/proc/self/mountinfo");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string skipped;
        std::string place;
        std::string options;
        words >> skipped >> skipped >> skipped >> skipped >> place >> options;
        for (size_t at = 0; (at = place.find('\\', at)) != std::string::npos; ++at) {
            place.replace(at, 4, 1, static_cast<char>(std::stoi(place.substr(at + 1, 3), nullptr, 8)));
        }
        Mount mount{place};
        options.insert(0, 1, ',').push_back(',');
        for (const auto &[name, flag] : {std::pair{",ro,", MS_RDONLY},
                                         {",nosuid,", MS_NOSUID},
                                         {",nodev,", MS_NODEV},
                                         {",noexec,", MS_NOEXEC}}) {
            mount.flags |= options.find(name) != std::string::npos ? static_cast<unsigned long>(flag) : 0;
        }
        mounts.push_back(std::move(mount));
    }
    return mounts;
}

}  // namespace

void mount_at(const char *source, const std::string &target, const char *type, unsigned long flags,
              const char *options) {
    if (mount(source, target.c_str(), type, flags, options) != 0) {
        _fail("mount " + target);
    }
}

HostPath::HostPath(const std::string &path) : fd_(open(path.c_str(), O_PATH | O_CLOEXEC)) {}

void HostPath::show_at(const std::string &target) const {
    const std::string source = "/proc/self/fd/" + std::to_string(fd_.get());
    if (fs::is_directory(source)) {
        fs::create_directories(target);
    } else {
        std::ofstream(target).flush();
    }
    mount_at(source.c_str(), target, "none", MS_BIND | MS_REC);
}

void leave_host_mounts() {
    const std::string folder = fs::current_path();
    mount_at("none", "/", "none", MS_REC | MS_PRIVATE);
    mount_at("/", "/tmp", "none", MS_BIND | MS_REC);
    fs::current_path("/tmp");
    if (syscall(SYS_pivot_root, ".", ".") != 0 || umount2(".", MNT_DETACH) != 0) {
        _fail("change of the root");
    }
    fs::current_path(folder);  // the same name, in the copy
}

void seal_mounts(const std::function<bool(const std::string &place)> &isOwn) {
    for (const auto &[place, flags] : _mounts()) {
        if (isOwn(place) || (flags & MS_RDONLY) != 0 ||
            mount("none", place.c_str(), "none", MS_REMOUNT | MS_BIND | MS_RDONLY | flags, nullptr) == 0) {
            continue;
        }
        // Out of sight: below another mount, or in a folder that this user may not enter.
        const bool hidden = errno == EINVAL || errno == ENOENT || errno == ENOTDIR || errno == EACCES;
        if (!hidden || place == "/") {
            _fail("making " + place + " read-only");
        }
    }
}

}  // namespace emulator
