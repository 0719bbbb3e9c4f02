#include "device_root.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <system_error>
#include <utility>

#include "mounts.h"

namespace emulator {
namespace {

namespace fs = std::filesystem;

std::set<std::string> g_kept_in_tmp;  // names in /tmp that belong to the host
bool g_flash_is_private = true;
std::string g_profile;  // where programs that measure their own coverage write; "" for most

// A clone of the repository below the host's /tmp, for example, must work on the device as well: the
// top-level folders of such paths are kept at their place.
std::set<std::string> _kept_below(const fs::path &root, const DeviceOptions &options) {
    std::vector<std::string> paths = options.keep;
    paths.push_back(fs::current_path());
    paths.push_back(fs::read_symlink("/proc/self/exe"));
    if (const char *command = getenv("CLOUD_MSG_COMMAND")) {
        std::istringstream words(command);
        std::copy(std::istream_iterator<std::string>(words), {}, std::back_inserter(paths));
    }
    std::set<std::string> names;
    for (const std::string &path : paths) {
        const fs::path relative = fs::absolute(path).lexically_normal().lexically_relative(root);
        if (!relative.empty() && *relative.begin() != "." && *relative.begin() != "..") {
            names.insert(*relative.begin());
        }
    }
    return names;
}

void _private_folder(const std::string &folder, const std::set<std::string> &kept, const char *mode) {
    std::vector<std::pair<std::string, HostPath>> shown;
    for (const std::string &name : kept) {
        const std::string path = (fs::path(folder) / name).string();
        if (HostPath host(path); host.ok()) {
            shown.emplace_back(path, std::move(host));
        }
    }
    mount_at("tmpfs", folder, "tmpfs", MS_NOSUID | MS_NODEV, mode);
    for (const auto &[path, host] : shown) {
        host.show_at(path);
    }
}

void _make_dev() {
    std::vector<std::pair<std::string, HostPath>> shown;
    for (const char *name : {"null", "zero", "full", "random", "urandom", "tty", "pts"}) {
        const std::string path = std::string("/dev/") + name;
        if (HostPath host(path); host.ok()) {
            shown.emplace_back(path, std::move(host));
        }
    }
    mount_at("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755");
    for (const auto &[path, host] : shown) {
        host.show_at(path);
    }
    fs::create_symlink("pts/ptmx", "/dev/ptmx");
    fs::create_symlink("/proc/self/fd", "/dev/fd");
    for (const int fd : {0, 1, 2}) {
        constexpr std::array kNames{"/dev/stdin", "/dev/stdout", "/dev/stderr"};
        fs::create_symlink("/proc/self/fd/" + std::to_string(fd), kNames.at(static_cast<size_t>(fd)));
    }
    fs::create_directory("/dev/shm");
    fs::permissions("/dev/shm", fs::perms::all | fs::perms::sticky_bit);
    fs::create_directory(kPrivateFolder);
    // Programs open the console for writing without appending: a plain file would be
    // overwritten from its start each time, a pipe keeps every line.
    if (mkfifo(kConsolePath, 0622) != 0) {
        throw std::system_error(errno, std::generic_category(), kConsolePath);
    }
}

std::string _shell_word(const std::string &text) {
    std::string word = "'";
    for (const char c : text) {
        word += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return word + "'";
}

void _make_scripts() {
    const fs::path upper = fs::path(kPrivateFolder) / "upper";
    const fs::path work = fs::path(kPrivateFolder) / "work";
    fs::create_directory(upper);
    fs::create_directory(work);
    const std::string recorder = _shell_word(fs::read_symlink("/proc/self/exe"));
    for (const char *name : {"dropbreload", "deleteToken.sh"}) {
        std::ofstream(upper / name) << "#!/bin/sh\nexec " << recorder << " record " << name << " \"$@\"\n";
        fs::permissions(upper / name, fs::perms(0755));
    }
    const std::string layers = "lowerdir=/usr/bin,upperdir=" + upper.string() + ",workdir=" + work.string();
    for (const std::string &options : {layers + ",userxattr", layers}) {
        if (mount("overlay", "/usr/bin", "overlay", 0, options.c_str()) == 0) {
            return;
        }
    }
    // No overlay to be had: a folder of links to the host's programs, and the scripts.
    const fs::path host = fs::path(kPrivateFolder) / "bin";
    HostPath("/usr/bin").show_at(host);
    mount_at("tmpfs", "/usr/bin", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
    for (const auto &entry : fs::directory_iterator(host)) {
        const fs::path target = entry.is_symlink() ? fs::read_symlink(entry) : entry.path();
        fs::create_symlink(target, "/usr/bin" / entry.path().filename());
    }
    for (const char *name : {"dropbreload", "deleteToken.sh"}) {
        fs::remove(fs::path("/usr/bin") / name);
        fs::copy_file(upper / name, fs::path("/usr/bin") / name);
    }
}

// An ordinary user cannot write them, and covering them would keep that user's devices from a /proc of their
// own.
void _cover_kernel_settings() {
    if (access("/proc/sys/kernel/core_pattern", W_OK) == 0) {
        for (const char *place : {"/proc/sys", "/proc/sysrq-trigger", "/proc/irq", "/proc/bus"}) {
            if (access(place, F_OK) == 0) {
                mount_at(place, place, "none", MS_BIND | MS_REC);
            }
        }
    }
}

// What a command may write to: it goes with the device, or is the flash that was given.
bool _is_the_devices_own(const std::string &place) {
    return place == "/tmp" || place == kFlashPath || place == "/dev" || place == "/usr/bin" ||
           place == "/proc" || place == g_profile ||
           (!g_flash_is_private && place.starts_with(std::string(kFlashPath) + '/')) ||
           (place.starts_with("/dev/") && !place.starts_with(kPrivateFolder));
}

}  // namespace

void make_device_root(const DeviceOptions &options) {
    g_kept_in_tmp = _kept_below("/tmp", options);
    g_flash_is_private = options.flash.empty();
    const std::set<std::string> keptInFlash = _kept_below(kFlashPath, options);
    const std::string folder = fs::current_path();
    leave_host_mounts();
    const HostPath flash(options.flash);
    if (!g_flash_is_private && !flash.ok()) {
        throw std::system_error(errno, std::generic_category(), "flash folder " + options.flash);
    }
    _private_folder("/tmp", g_kept_in_tmp, "mode=01777");
    if (g_flash_is_private) {
        _private_folder(kFlashPath, keptInFlash, "mode=0755");
    } else {
        flash.show_at(kFlashPath);
    }
    _make_dev();
    _make_scripts();
    fs::current_path(folder);  // the same name, seen through the new mounts
    std::string programs = fs::read_symlink("/proc/self/exe").parent_path();
    // The tools that go with a program under test of another build (another processor's records).
    if (const char *tools = getenv("CLOUD_DEVICE_TOOLS")) {
        programs = std::string(tools) + ":" + programs;
    }
    const char *path = getenv("PATH");
    setenv("PATH", (programs + ":" + (path != nullptr ? path : "/usr/bin:/bin")).c_str(), 1);
    setenv("CLOUD_FLASH_DIR", kFlashPath, 1);
    setenv("CLOUD_STORE_FILE", "/mnt/store.db", 1);
    setenv("CLOUD_RSA_KEY_FILE", "/mnt/rsa_key.pem", 1);
    unsetenv("TMPDIR");  // a folder of the host, perhaps: /tmp is meant
    // Where the host does not allow it, its own stays: only `ps` shows the difference.
    mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
    if (const char *profile = getenv("GCOV_PREFIX")) {
        g_profile = profile;
        mount_at(profile, profile, "none", MS_BIND);
    }
    _cover_kernel_settings();
    seal_mounts(_is_the_devices_own);
}

void clear_tmp() {
    for (const auto &entry : fs::directory_iterator("/tmp")) {
        if (!g_kept_in_tmp.contains(entry.path().filename())) {
            fs::remove_all(entry);
        }
    }
}

void clear_flash() {
    if (!g_flash_is_private) {
        return;
    }
    for (const auto &entry : fs::directory_iterator(kFlashPath)) {
        std::error_code ignored;  // a folder of the host that had to be kept there cannot go
        fs::remove(entry, ignored);
    }
}

}  // namespace emulator
