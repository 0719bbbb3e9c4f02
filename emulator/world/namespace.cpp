#include "namespace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <sstream>
#include <system_error>
#include <utility>

#include "descriptor.h"
#include "journal.h"
#include "process.h"
#include "unix_socket.h"

namespace emulator {
namespace {

namespace fs = std::filesystem;

constexpr const char *kInsideMark = "EXTENDER_INSIDE";
constexpr int kNoDevice = 125;
constexpr const char *kNeeds =
    " It needs the right to make mounts and namespaces: root (in a container: CAP_SYS_ADMIN, and no filter "
    "of "
    "mount calls), or user namespaces for everybody (user.max_user_namespaces above 0).\n";

std::set<std::string> g_kept_in_tmp;  // names in /tmp that belong to the host
bool g_flash_is_private = true;
std::string g_profile;  // where programs that measure their own coverage write; "" for most

[[noreturn]] void _fail(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void _mount(const char *source, const std::string &target, const char *type, unsigned long flags,
            const char *options = nullptr) {
    if (mount(source, target.c_str(), type, flags, options) != 0) {
        _fail("mount " + target);
    }
}

// A file or folder of the host, opened while it could still be seen, shown again elsewhere.
class HostPath {
public:
    explicit HostPath(const std::string &path) : fd_(open(path.c_str(), O_PATH | O_CLOEXEC)) {}
    [[nodiscard]] bool ok() const { return fd_.ok(); }
    void show_at(const std::string &target) const {
        const std::string source = "/proc/self/fd/" + std::to_string(fd_.get());
        if (fs::is_directory(source)) {
            fs::create_directories(target);
        } else {
            std::ofstream(target).flush();
        }
        _mount(source.c_str(), target, "none", MS_BIND | MS_REC);
    }

private:
    Descriptor fd_;
};

std::vector<std::string> _arguments() {
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    std::vector<std::string> words;
    for (std::string word; std::getline(file, word, '\0');) {
        words.push_back(word);
    }
    return words;
}

// A clone of the repository below the host's /tmp, say, must work on the device as well: the
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
    _mount("tmpfs", folder, "tmpfs", MS_NOSUID | MS_NODEV, mode);
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
    _mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755");
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
        _fail("console");
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
    _mount("tmpfs", "/usr/bin", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
    for (const auto &entry : fs::directory_iterator(host)) {
        const fs::path target = entry.is_symlink() ? fs::read_symlink(entry) : entry.path();
        fs::create_symlink(target, "/usr/bin" / entry.path().filename());
    }
    for (const char *name : {"dropbreload", "deleteToken.sh"}) {
        fs::remove(fs::path("/usr/bin") / name);
        fs::copy_file(upper / name, fs::path("/usr/bin") / name);
    }
}

// The device's root is a copy of the host's mounts: a file that is open for writing in the host's own (the
// journal) would keep that from becoming read-only.
void _leave_host_mounts() {
    const std::string folder = fs::current_path();
    _mount("none", "/", "none", MS_REC | MS_PRIVATE);
    _mount("/", "/tmp", "none", MS_BIND | MS_REC);
    fs::current_path("/tmp");
    if (syscall(SYS_pivot_root, ".", ".") != 0 || umount2(".", MNT_DETACH) != 0) {
        _fail("change of the root");
    }
    fs::current_path(folder);  // the same name, in the copy
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

// What a command may write to: it goes with the device, or is the flash that was given.
bool _is_the_devices_own(const std::string &place) {
    return place == "/tmp" || place == kFlashPath || place == "/dev" || place == "/usr/bin" ||
           place == "/proc" || place == g_profile ||
           (!g_flash_is_private && place.starts_with(std::string(kFlashPath) + '/')) ||
           (place.starts_with("/dev/") && !place.starts_with(kPrivateFolder));
}

// Everything of the host becomes read-only. By one call a mount, which every kernel and valgrind know.
void _seal() {
    // Settings of the host's kernel. An ordinary user cannot write them, and covering them would keep that
    // user's devices from a /proc of their own.
    if (access("/proc/sys/kernel/core_pattern", W_OK) == 0) {
        for (const char *place : {"/proc/sys", "/proc/sysrq-trigger", "/proc/irq", "/proc/bus"}) {
            if (access(place, F_OK) == 0) {
                _mount(place, place, "none", MS_BIND | MS_REC);
            }
        }
    }
    for (const auto &[place, flags] : _mounts()) {
        if (_is_the_devices_own(place) || (flags & MS_RDONLY) != 0 ||
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

void _make_device(const DeviceOptions &options) {
    g_kept_in_tmp = _kept_below("/tmp", options);
    g_flash_is_private = options.flash.empty();
    const std::set<std::string> kept_in_flash = _kept_below(kFlashPath, options);
    const std::string folder = fs::current_path();
    _leave_host_mounts();
    const HostPath flash(options.flash);
    if (!g_flash_is_private && !flash.ok()) {
        _fail("flash folder " + options.flash);
    }
    _private_folder("/tmp", g_kept_in_tmp, "mode=01777");
    if (g_flash_is_private) {
        _private_folder(kFlashPath, kept_in_flash, "mode=0755");
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
    setenv("TMPDIR", "/tmp", 1);
    // Where the host does not allow it, its own stays: only `ps` shows the difference.
    mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
    if (const char *profile = getenv("GCOV_PREFIX")) {
        g_profile = profile;
        _mount(profile, profile, "none", MS_BIND);
    }
    _seal();
}

sigset_t _handed_on_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&set, signal);
    }
    return set;
}

// Waits until the child ends, reaping others; hands signals on to it. The terminal's own
// (code SI_KERNEL) reach every process by themselves.
int _wait_for(pid_t child, int *last_signal) {
    const sigset_t set = _handed_on_signals();
    for (;;) {
        siginfo_t info{};
        const int signal = sigwaitinfo(&set, &info);
        if (signal > 0 && signal != SIGCHLD) {
            *last_signal = signal;
            if (info.si_code == SI_USER) {
                kill(child, signal);
            }
        }
        int status = 0;
        for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (pid == child) {
                return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
            }
        }
    }
}

// Between clone and exec: system calls only, for the process may have lost a thread that held a lock.
[[noreturn]] void _give_up(const char *what) {
    for (const char *text : {"No private device: ", what, ".", kNeeds}) {
        if (write(STDERR_FILENO, text, std::strlen(text)) < 0) {
            break;
        }
    }
    _exit(kNoDevice);
}

// Between clone and exec: system calls only. The raw call makes the namespaces in one step
// even where the process has threads (a sanitizer's), which unshare refuses.
pid_t _clone_into(unsigned long namespaces, const std::string &uid_map, const std::string &gid_map,
                  const char *program, char **argv, char **environment, const sigset_t &mask) {
    const long pid = syscall(SYS_clone, namespaces | SIGCHLD, nullptr, nullptr, nullptr, nullptr);
    if (pid != 0) {
        return static_cast<pid_t>(pid);
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if ((namespaces & CLONE_NEWUSER) != 0) {
        const auto put = [](const char *path, const char *text, size_t size) {
            const Descriptor fd(open(path, O_WRONLY | O_CLOEXEC));
            if (!fd.ok() || write(fd.get(), text, size) < 0) {
                _give_up("the user namespace cannot be set up");
            }
        };
        put("/proc/self/setgroups", "deny", 4);
        put("/proc/self/uid_map", uid_map.c_str(), uid_map.size());
        put("/proc/self/gid_map", gid_map.c_str(), gid_map.size());
    }
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    // By its path first: under valgrind the link leads to the tool. The link, where the path is gone.
    execve(program, argv, environment);
    execve("/proc/self/exe", argv, environment);
    _give_up("this program cannot be started anew");
}

[[noreturn]] void _stay_outside() {
    std::vector<std::string> words = _arguments();
    std::vector<char *> argv = exec_pointers(words);
    std::string mark = std::string(kInsideMark) + "=1";
    std::vector<char *> environment;
    for (char **entry = environ; *entry != nullptr; ++entry) {
        environment.push_back(*entry);
    }
    environment.push_back(mark.data());
    environment.push_back(nullptr);
    const std::string uid_map = "0 " + std::to_string(geteuid()) + " 1";
    const std::string gid_map = "0 " + std::to_string(getegid()) + " 1";

    const std::string program = fs::read_symlink("/proc/self/exe");

    const sigset_t set = _handed_on_signals();
    sigset_t mask;
    sigprocmask(SIG_BLOCK, &set, &mask);
    const auto clone_into = [&](unsigned long namespaces) {
        return _clone_into(namespaces | CLONE_NEWNS | CLONE_NEWPID, uid_map, gid_map, program.c_str(),
                           argv.data(), environment.data(), mask);
    };
    pid_t inner = geteuid() == 0 ? clone_into(0) : -1;
    if (inner < 0) {
        inner = clone_into(CLONE_NEWUSER);
    }
    if (inner < 0) {
        std::cerr << "No private device: " << std::strerror(errno) << '.' << kNeeds;
        std::_Exit(kNoDevice);
    }
    int signal = 0;
    const int status = _wait_for(inner, &signal);
    if (signal != 0 && status == 128 + signal) {
        std::signal(signal, SIG_DFL);
        sigprocmask(SIG_UNBLOCK, &set, nullptr);
        raise(signal);
    }
    std::_Exit(status);
}

void _record_script(const std::vector<std::string> &words) {
    const std::vector<std::string> arguments(words.begin() + 3, words.end());
    const std::string text = dump({{"name", words[2]}, {"arguments", arguments}});
    const Descriptor fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = socket_address(kRecorderPath);
    const auto sent = sendto(fd.get(), text.data(), text.size(), 0,
                             reinterpret_cast<const sockaddr *>(&address), sizeof address);
    std::_Exit(sent < 0 ? 1 : 0);
}

}  // namespace

void split_off() {
    if (getenv(kInsideMark) == nullptr || getpid() != 1) {
        _stay_outside();
    }
}

void enter_device(const DeviceOptions &options) {
    const std::vector<std::string> words = _arguments();
    if (words.size() >= 3 && words[1] == "record" && fs::exists(kPrivateFolder)) {
        _record_script(words);
    }
    split_off();
    unsetenv(kInsideMark);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
        _make_device(options);
    } catch (const std::exception &error) {
        std::cerr << "No private device: " << error.what() << '.' << kNeeds;
        std::_Exit(kNoDevice);
    }
    const sigset_t set = _handed_on_signals();
    sigset_t mask;
    sigprocmask(SIG_BLOCK, &set, &mask);
    const pid_t program = fork();
    if (program == 0) {
        sigprocmask(SIG_SETMASK, &mask, nullptr);
        return;
    }
    int signal = 0;
    std::_Exit(program < 0 ? kNoDevice : _wait_for(program, &signal));
}

void clear_tmp() {
    for (const auto &entry : fs::directory_iterator("/tmp")) {
        if (!g_kept_in_tmp.contains(entry.path().filename())) {
            fs::remove_all(entry);
        }
    }
}

void end_other_processes() {
    const std::string self = std::to_string(getpid());
    std::error_code gone;  // processes end while their folder is looked at
    if (fs::read_symlink("/proc/self", gone) != self ||
        fs::read_symlink("/proc/1/exe", gone) != fs::read_symlink("/proc/self/exe")) {
        return;  // the host's /proc: its numbers are not ours
    }
    for (const auto &entry : fs::directory_iterator("/proc", gone)) {
        const pid_t pid = static_cast<pid_t>(std::atoi(entry.path().filename().c_str()));
        if (pid > 1 && pid != getpid()) {
            kill(pid, SIGKILL);
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
