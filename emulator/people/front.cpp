#include "front.h"

#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <thread>

#include "firmware.h"

namespace {

constexpr int kNoCommand = 127;
constexpr std::chrono::milliseconds kLookEvery{50};
constexpr std::chrono::seconds kLastScripts{2};  // that a command may have left in the background

std::atomic<pid_t> g_command{0};

void _hand_on(int signal) {
    if (g_command > 0) {
        kill(g_command, signal);
    }
}

// Runs a command on this terminal, as a shell would.
}  // namespace

int emulator::run_in_front(Device &device, std::vector<std::string> words) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        std::signal(signal, _hand_on);
    }
    const std::vector<char *> argv = exec_pointers(words);
    pid_t pid = 0;
    const int error = posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
    if (error != 0) {
        std::cerr << words[0] << ": " << std::strerror(error) << '\n';
        return kNoCommand;
    }
    g_command = pid;
    // A device that restarts takes what runs in front with it.
    std::thread power([pid] {
        while (g_command == pid && !Device::restart_due()) {
            std::this_thread::sleep_for(kLookEvery);
        }
        if (g_command == pid) {
            kill(pid, SIGKILL);
        }
    });
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    g_command = 0;
    power.join();
    if (WIFEXITED(status)) {
        device.settle(kLastScripts);
    }
    const int code = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    device.journal().add("run", {{"argv", words}, {"status", code}});
    if (!Device::restart_due()) {
        return code;
    }
    device.restart();
    put_status_file();
    std::cout << "\nThe device has restarted. It runs " << std::ifstream("/tmp/softinfo").rdbuf();
    return kRestarted;
}
