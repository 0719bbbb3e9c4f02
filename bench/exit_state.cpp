// exit_state FILE COMMAND...: runs the command; when it is about to end, notes in FILE, one JSON line,
// its resident memory, what of it no file backs, and the libraries that it has loaded. Ends with the
// command's status. Sampling from outside comes too late or too early for programs that live a few
// milliseconds; the kernel's own figures of a finished process are off by most of a megabyte.
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace {

// KiB of one line of smaps_rollup; -1 when there is none.
long _memory_kib(pid_t pid, const std::string &key) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(key + ":")) {
            return std::stol(line.substr(key.size() + 1));
        }
    }
    return -1;
}

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

void _note(pid_t pid, const char *path) {
    std::ofstream file(path, std::ios::trunc);
    file << "{\"rss_kib\":" << _memory_kib(pid, "Rss")
         << ",\"anonymous_kib\":" << _memory_kib(pid, "Anonymous") << ",\"libraries\":[";
    const char *separator = "";
    for (const std::string &name : _libraries(pid)) {
        file << separator << '"' << name << '"';
        separator = ",";
    }
    file << "]}\n";
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
    int status = 0;
    waitpid(pid, &status, 0);
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACEEXIT | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL);
    for (int signal = 0;;) {
        ptrace(PTRACE_CONT, pid, nullptr, signal);
        if (waitpid(pid, &status, __WALL) != pid || !WIFSTOPPED(status)) {
            break;
        }
        if (status >> 8 == (SIGTRAP | (PTRACE_EVENT_EXIT << 8))) {
            _note(pid, argv[1]);
        }
        signal = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
