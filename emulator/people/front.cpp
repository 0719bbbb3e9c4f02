#include "front.h"

#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>

#include "firmware.h"

namespace {

constexpr std::chrono::seconds kLastScripts{2};  // that a command may have left in the background

std::atomic<pid_t> g_command{0};

void _hand_on(int signal) {
    if (g_command > 0) {
        kill(g_command, signal);
    }
}

// Returns when the command has ended, which leaves it to be waited for, or when the device is to restart.
void _await_end(pid_t command) {
    const emulator::Descriptor ended(static_cast<int>(syscall(SYS_pidfd_open, command, 0)));
    const emulator::RestartWatch restart;
    std::array<pollfd, 2> ends{{{ended.get(), POLLIN, 0}, {restart.fd(), POLLIN, 0}}};
    while (!restart.due()) {
        if (poll(ends.data(), ends.size(), -1) > 0 && ends[0].revents != 0) {
            return;
        }
    }
}

}  // namespace

int emulator::run_in_front(Control &control, std::vector<std::string> words) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        std::signal(signal, _hand_on);
    }
    const std::vector<char *> argv = exec_pointers(words);
    control.note_start(words);  // before all that the command does
    pid_t pid = 0;
    const int error = posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
    if (error != 0) {
        std::cerr << words[0] << ": " << std::strerror(error) << '\n';
        control.note_end(words, kNoCommand);
        return kNoCommand;
    }
    g_command = pid;
    _await_end(pid);
    g_command = 0;
    if (Device::restart_due()) {
        kill(pid, SIGKILL);  // a device that restarts takes what runs in front with it
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        control.device().settle(kLastScripts);
    }
    const int code = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    control.note_end(words, code);
    if (!Device::restart_due()) {
        return code;
    }
    control.device().restart();
    put_status_file();
    std::cout << "\nThe device has restarted. It runs " << std::ifstream("/tmp/softinfo").rdbuf();
    return kRestarted;
}
