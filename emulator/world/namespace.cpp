#include "namespace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <system_error>
#include <vector>

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
    " It needs the right to make mounts and namespaces: run it as root, in a container with CAP_SYS_ADMIN "
    "and without a filter of mount calls, or allow user namespaces to everybody.\n";

// What to do where this host refuses.
constexpr const char *kRefused =
    "In a container, start that with --cap-add SYS_ADMIN --security-opt seccomp=unconfined --security-opt "
    "apparmor=unconfined. Elsewhere run this as root, or \"sysctl -w kernel.unprivileged_userns_clone=1\" or "
    "\"sysctl -w kernel.apparmor_restrict_unprivileged_userns=0\", whichever this kernel has.\n";

bool _is_refusal(int error) {
    return error == EPERM || error == EACCES;
}

// What to do when clone makes no namespaces; a mount fails of the same numbers for other causes.
const char *_clone_advice(int error) {
    switch (error) {
        case ENOSPC:
            return "No user namespace is left: \"sysctl -w user.max_user_namespaces=10000\".\n";
        case EINVAL:
        case ENOSYS:
            return "This kernel has no user namespaces (CONFIG_USER_NS): run it as root.\n";
        default:
            return _is_refusal(error) ? kRefused : "";
    }
}

[[noreturn]] void _no_device(const std::string &reason, const char *advice) {
    std::cerr << "No private device: " << reason << '.' << kNeeds << advice << std::flush;
    std::_Exit(kNoDevice);
}

std::vector<std::string> _arguments() {
    std::ifstream file("/proc/self/cmdline", std::ios::binary);
    std::vector<std::string> words;
    for (std::string word; std::getline(file, word, '\0');) {
        words.push_back(word);
    }
    return words;
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
int _wait_for(pid_t child, int *lastSignal) {
    const sigset_t set = _handed_on_signals();
    for (;;) {
        siginfo_t info{};
        const int signal = sigwaitinfo(&set, &info);
        if (signal > 0 && signal != SIGCHLD) {
            *lastSignal = signal;
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
pid_t _clone_into(unsigned long namespaces, const std::string &uidMap, const std::string &gidMap,
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
        put("/proc/self/uid_map", uidMap.c_str(), uidMap.size());
        put("/proc/self/gid_map", gidMap.c_str(), gidMap.size());
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
    const std::string uidMap = "0 " + std::to_string(geteuid()) + " 1";
    const std::string gidMap = "0 " + std::to_string(getegid()) + " 1";

    const std::string program = fs::read_symlink("/proc/self/exe");

    const sigset_t set = _handed_on_signals();
    sigset_t mask;
    sigprocmask(SIG_BLOCK, &set, &mask);
    const auto cloneInto = [&](unsigned long namespaces) {
        return _clone_into(namespaces | CLONE_NEWNS | CLONE_NEWPID, uidMap, gidMap, program.c_str(),
                           argv.data(), environment.data(), mask);
    };
    pid_t inner = geteuid() == 0 ? cloneInto(0) : -1;
    if (inner < 0) {
        inner = cloneInto(CLONE_NEWUSER);
    }
    if (inner < 0) {
        const int error = errno;
        _no_device(std::strerror(error), _clone_advice(error));
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
        make_device_root(options);
    } catch (const std::system_error &error) {
        _no_device(error.what(), _is_refusal(error.code().value()) ? kRefused : "");
    } catch (const std::exception &error) {
        _no_device(error.what(), "");
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

}  // namespace emulator
