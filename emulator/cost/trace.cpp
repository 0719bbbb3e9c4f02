#include "trace.h"

#include <fcntl.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "descriptor.h"

namespace emulator {
namespace {

constexpr int kCallStop = SIGTRAP | 0x80;
constexpr int kNoCommand = 127;

// Calls that write, and which of their arguments is the descriptor.
constexpr std::pair<long, size_t> kWriters[] = {{SYS_write, 0},   {SYS_pwrite64, 0},       {SYS_writev, 0},
                                                {SYS_pwritev, 0}, {SYS_pwritev2, 0},       {SYS_sendfile, 0},
                                                {SYS_splice, 2},  {SYS_copy_file_range, 2}};

struct Free {
    void operator()(char *text) const { std::free(text); }
};

std::string _call_name(uint32_t architecture, uint64_t number) {
    const std::unique_ptr<char, Free> name(
        seccomp_syscall_resolve_num_arch(architecture, static_cast<int>(number)));
    return name != nullptr ? name.get() : "call " + std::to_string(number);
}

std::string _proc(pid_t pid, const std::string &name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

Descriptor _memory_file() {
    Descriptor fd(memfd_create("stdio", MFD_CLOEXEC));
    if (!fd.ok()) {
        throw std::system_error(errno, std::generic_category(), "memory file");
    }
    return fd;
}

std::string _content(const Descriptor &file) {
    std::string text(static_cast<size_t>(lseek(file.get(), 0, SEEK_END)), '\0');
    const ssize_t size = pread(file.get(), text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return text;
}

// Files that were written to. A file is often renamed once it is whole: each is kept open, so that the kernel
// can name it in the end.
class WrittenFiles {
public:
    explicit WrittenFiles(const std::vector<std::string> &folders) : folders_(folders) {}

    void add(pid_t pid, uint64_t fd, int64_t bytes) {
        const std::string link = _proc(pid, "fd/" + std::to_string(fd));
        std::error_code gone;
        const std::string path = std::filesystem::read_symlink(link, gone);
        struct stat status {};
        if (std::none_of(folders_.begin(), folders_.end(),
                         [&](const std::string &folder) { return path.starts_with(folder + '/'); }) ||
            stat(link.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
            return;
        }
        File &file = files_[{status.st_dev, status.st_ino}];
        if (!file.held.ok()) {
            file.held.reset(open(link.c_str(), O_PATH | O_CLOEXEC));
        }
        file.bytes += static_cast<uint64_t>(bytes);
    }

    [[nodiscard]] std::map<std::string, uint64_t> by_name() const {
        constexpr std::string_view kDeleted = " (deleted)";
        std::map<std::string, uint64_t> sums;
        for (const auto &[id, file] : files_) {
            std::error_code gone;
            std::string path =
                std::filesystem::read_symlink(_proc(getpid(), "fd/" + std::to_string(file.held.get())), gone);
            if (path.ends_with(kDeleted)) {
                path.resize(path.size() - kDeleted.size());
            }
            sums[path] += file.bytes;
        }
        return sums;
    }

private:
    struct File {
        Descriptor held;
        uint64_t bytes = 0;
    };
    const std::vector<std::string> &folders_;
    std::map<std::pair<dev_t, ino_t>, File> files_;
};

class Tracer {
public:
    Tracer(pid_t pid, const std::vector<std::string> &folders) : pid_(pid), files_(folders) {}

    // Follows the process and its threads to its end. @return its wait status.
    int follow(Trace &trace) {
        int status = 0;
        waitpid(pid_, &status, 0);
        if (ptrace(PTRACE_SETOPTIONS, pid_, nullptr,
                   PTRACE_O_TRACEEXIT | PTRACE_O_TRACEEXEC | PTRACE_O_TRACECLONE | PTRACE_O_TRACESYSGOOD |
                       PTRACE_O_EXITKILL) != 0) {
            throw std::system_error(errno, std::generic_category(), "ptrace");
        }
        ptrace(PTRACE_SYSCALL, pid_, nullptr, 0);
        // Of this thread's children alone: the neighbours' threads have some of their own.
        for (pid_t thread = 0; (thread = waitpid(-1, &status, __WALL | __WNOTHREAD)) > 0;) {
            if (!WIFSTOPPED(status)) {
                if (thread == pid_) {
                    break;
                }
                continue;
            }
            const int signal = WSTOPSIG(status);
            _stopped(thread, status >> 16, signal, trace);
            // Not the program's own: the tracer's stops, and SIGSTOP, with which a thread begins.
            const bool foreign = signal == SIGTRAP || signal == kCallStop || signal == SIGSTOP;
            ptrace(PTRACE_SYSCALL, thread, nullptr, foreign ? 0 : signal);
        }
        trace.written = files_.by_name();
        return status;
    }

private:
    void _stopped(pid_t thread, int event, int signal, Trace &trace) {
        begun_ = begun_ || event == PTRACE_EVENT_EXEC;  // what was there before is not this program
        if (!begun_) {
            return;
        }
        if (signal == kCallStop) {
            _call(thread, trace);
        }
        if (event == PTRACE_EVENT_EXIT) {
            _look(thread, trace);
            if (thread == pid_) {
                _note_mapped(trace);
            }
        }
    }

    void _call(pid_t thread, Trace &trace) {
        __ptrace_syscall_info info{};
        ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            ++trace.calls[_call_name(info.arch, info.entry.nr)];
            target_[thread] = _target(info);
            _look(thread, trace);
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && info.exit.rval > 0) {
            if (const uint64_t fd = std::exchange(target_[thread], kNone); fd != kNone) {
                files_.add(thread, fd, info.exit.rval);
            }
        }
    }

    // The descriptor that a call writes to, or kNone.
    static uint64_t _target(const __ptrace_syscall_info &info) {
        const auto *const found =
            std::find_if(std::begin(kWriters), std::end(kWriters),
                         [&](const auto &writer) { return std::cmp_equal(writer.first, info.entry.nr); });
        return found == std::end(kWriters) ? kNone : info.entry.args[found->second];
    }

    static void _look(pid_t pid, Trace &trace) {
        std::ifstream file(_proc(pid, "smaps_rollup"));
        for (std::string line; std::getline(file, line);) {
            for (const auto &[name, highest] :
                 {std::pair{"Rss:", &trace.resident_kib}, std::pair{"Anonymous:", &trace.private_kib}}) {
                if (line.starts_with(name)) {
                    *highest = std::max(*highest, std::stol(line.substr(std::string_view(name).size())));
                }
            }
        }
    }

    void _note_mapped(Trace &trace) const {
        std::set<std::string> files;
        std::ifstream maps(_proc(pid_, "maps"));
        for (std::string line; std::getline(maps, line);) {
            if (const size_t slash = line.find('/'); slash != std::string::npos) {
                files.insert(line.substr(slash));
            }
        }
        trace.mapped.assign(files.begin(), files.end());
    }

    static constexpr uint64_t kNone = ~uint64_t{0};
    const pid_t pid_;
    WrittenFiles files_;
    bool begun_ = false;
    std::map<pid_t, uint64_t> target_;  // by thread: what the call that it is in writes to
};

}  // namespace

Trace trace(std::vector<std::string> argv, const std::vector<std::string> &folders) {
    const Descriptor out = _memory_file();
    const Descriptor err = _memory_file();
    const Descriptor input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const std::vector<char *> words = exec_pointers(argv);
    const pid_t pid = fork();
    if (pid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (pid == 0) {
        dup2(input.get(), STDIN_FILENO);
        dup2(out.get(), STDOUT_FILENO);
        dup2(err.get(), STDERR_FILENO);
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);  // until the tracer has said what it wants to see
        execvp(words[0], words.data());
        _exit(kNoCommand);
    }
    Trace trace;
    const int status = Tracer(pid, folders).follow(trace);
    trace.run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    trace.run.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    trace.run.out = _content(out);
    trace.run.err = _content(err);
    if (trace.calls.empty()) {
        throw std::system_error(ENOENT, std::generic_category(), argv[0]);
    }
    return trace;
}

}  // namespace emulator
