// exit_state FILE COMMAND...: runs the command and notes in FILE, one JSON line, the most memory that it kept
// resident, the most that no file backs, the libraries that it has loaded when it ends, and the milliseconds
// that looking took. Ends with the command's status. It looks at each system call and at the end: what a
// program touches stays resident until a call takes it away. Sampling from outside comes too late or too
// early for programs that live a few milliseconds; the kernel's own figures of a finished process are off by
// most of a megabyte.
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

struct Peak {
    long rss_kib = 0;
    long anonymous_kib = 0;
    Clock::duration looking{0};

    void look(pid_t pid) {
        const auto begin = Clock::now();
        std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
        for (std::string line; std::getline(file, line);) {
            _raise(line, "Rss:", rss_kib);
            _raise(line, "Anonymous:", anonymous_kib);
        }
        looking += Clock::now() - begin;
    }

private:
    static void _raise(const std::string &line, const std::string &key, long &highest) {
        if (line.starts_with(key)) {
            highest = std::max(highest, std::stol(line.substr(key.size())));
        }
    }
};

std::set<std::string> _libraries(pid_t pid) {
    std::set<std::string> names;
    std::ifstream file("/proc/" + std::to_string(pid) + "/maps");
    for (std::string line; std::getline(file, line);) {
        const size_t slash = line.rfind('/');
        if (slash != std::string::npos && line.find(".so", slash) != std::string::npos) {
            names.insert(line.substr(slash + 1));
        }
    }
    return names;
}

void _note(pid_t pid, const Peak &peak, const char *path) {
    std::ofstream file(path, std::ios::trunc);
    file << "{\"rss_kib\":" << peak.rss_kib << ",\"anonymous_kib\":" << peak.anonymous_kib
         << ",\"looking_ms\":" << std::chrono::duration_cast<std::chrono::milliseconds>(peak.looking).count()
         << ",\"libraries\":[";
    const char *separator = "";
    for (const std::string &name : _libraries(pid)) {
        file << separator << '"' << name << '"';
        separator = ",";
    }
    file << "]}\n";
}

// Entering: what was touched since the last call is there, what this one takes away is, too.
bool _enters_call(pid_t thread) {
    __ptrace_syscall_info info{};
    return ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info) > 0 &&
           info.op == PTRACE_SYSCALL_INFO_ENTRY;
}

// Follows the process and its threads (not its children) to its end. @return its status.
int _follow(pid_t pid, const char *path) {
    constexpr int kCallStop = SIGTRAP | 0x80;
    int status = 0;
    waitpid(pid, &status, 0);
    ptrace(PTRACE_SETOPTIONS, pid, nullptr,
           PTRACE_O_TRACEEXIT | PTRACE_O_TRACEEXEC | PTRACE_O_TRACECLONE | PTRACE_O_TRACESYSGOOD |
               PTRACE_O_EXITKILL);
    ptrace(PTRACE_SYSCALL, pid, nullptr, 0);
    bool begun = false;  // what was there before the exec is this program
    Peak peak;
    for (pid_t thread = 0; (thread = waitpid(-1, &status, __WALL)) > 0;) {
        if (!WIFSTOPPED(status)) {
            if (thread == pid) {
                break;
            }
            continue;
        }
        const int event = status >> 16;
        const int signal = WSTOPSIG(status);
        begun = begun || event == PTRACE_EVENT_EXEC;
        if (begun && (event == PTRACE_EVENT_EXIT || (signal == kCallStop && _enters_call(thread)))) {
            peak.look(thread);
        }
        if (event == PTRACE_EVENT_EXIT && thread == pid) {
            _note(pid, peak, path);
        }
        // Not the program's own: the tracer's stops, and SIGSTOP, with which a thread begins.
        const bool foreign = signal == SIGTRAP || signal == kCallStop || signal == SIGSTOP;
        ptrace(PTRACE_SYSCALL, thread, nullptr, foreign ? 0 : signal);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        std::fputs("Usage: exit_state FILE COMMAND...\n", stderr);
        return 2;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);  // until the tracer has said what it wants to see
        execvp(argv[2], argv + 2);
        std::perror(argv[2]);
        _exit(127);
    }
    return _follow(pid, argv[1]);
}
