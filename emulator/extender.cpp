// The emulated device as a program: run a command on it, use it by hand, or watch its life.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "demo.h"
#include "device.h"
#include "namespace.h"

namespace {

using emulator::json;

constexpr int kNoCommand = 127;
constexpr std::chrono::seconds kLastScripts{2};  // that a command may have left in the background

std::atomic<pid_t> g_command{0};

void _hand_on(int signal) {
    if (g_command > 0) {
        kill(g_command, signal);
    }
}

// Runs a command on this terminal, as a shell would.
int _in_front(emulator::Device &device, std::vector<std::string> words) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        std::signal(signal, _hand_on);
    }
    const std::vector<char *> argv = emulator::exec_pointers(words);
    pid_t pid = 0;
    const int error = posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
    if (error != 0) {
        std::cerr << words[0] << ": " << std::strerror(error) << '\n';
        return kNoCommand;
    }
    g_command = pid;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    g_command = 0;
    if (WIFEXITED(status)) {
        device.settle(kLastScripts);
    }
    const int code = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    device.journal().add("run", {{"argv", words}, {"status", code}});
    return code;
}

int _shell(emulator::Device &device) {
    std::cout << "An emulated extender: its own /tmp, /dev/console, scripts, broker and cloud. Try\n"
                 "  cloud_msg bind alice@example.com \"$(cloud_rsa encrypt Secret-1)\"\n"
                 "  cloud_msg getBindStatus; cloud_store dump; ls /tmp; cat /tmp/cloud.error\n"
                 "  cloud_msg passthrough getWeather \"$(echo '{}' | base64)\"; cloud_msg -h\n"
                 "Other accounts: bob@example.com Secret-2, carol@example.com Secret-3. Leave with exit.\n";
    std::cout.flush();
    setenv("PS1", "extender:\\w# ", 1);
    std::vector<std::string> words{"bash", "--norc", "--noprofile"};
    if (isatty(STDIN_FILENO) != 0) {
        words.emplace_back("-i");
    }
    return _in_front(device, words);
}

json _read_json(const std::string &path) {
    return path.empty() ? json::object() : json::parse(std::ifstream(path), nullptr, true, true);
}

}  // namespace

int main(int argc, char **argv) try {
    if (argc > 2 && std::string_view(argv[1]) == "record") {
        emulator::enter_device();  // only reports the script
    }
    CLI::App app{"A Wi-Fi range extender, emulated: the neighbours of cloud_msg in a private device."};
    app.require_subcommand(1);
    std::string scenario_path;
    std::string journal_path;
    std::string cloud_path;
    emulator::DeviceOptions options;
    std::vector<std::string> command;
    CLI::App *run = app.add_subcommand("run", "Run a command on the device; exits with its status.");
    CLI::App *shell = app.add_subcommand("shell", "An interactive shell on the device.");
    CLI::App *demo = app.add_subcommand("demo", "Plays the life of a device, step by step.");
    for (CLI::App *each : {run, shell, demo}) {
        each->add_option("--journal", journal_path, "File that gets a JSON line for everything that happens");
    }
    for (CLI::App *each : {run, shell}) {
        each->add_option("--scenario", scenario_path, "Faults and start values, JSON")
            ->check(CLI::ExistingFile);
        each->add_option("--cloud", cloud_path, "Changes to the model of the cloud, JSON")
            ->check(CLI::ExistingFile);
        each->add_option("--flash", options.flash, "Folder that is the flash and outlives the run")
            ->check(CLI::ExistingDirectory);
    }
    run->add_option("command", command, "The command, after --")->required();
    CLI11_PARSE(app, argc, argv);

    // Files of the host: read and opened while its /tmp is still in sight.
    const json scenario = _read_json(scenario_path);
    const json cloud = _read_json(cloud_path);
    std::FILE *sink = nullptr;
    if (!journal_path.empty() && (sink = std::fopen(journal_path.c_str(), "we")) == nullptr) {
        std::perror(journal_path.c_str());
        return 1;
    }
    if (!command.empty()) {
        options.keep.push_back(command.front());
    }
    emulator::enter_device(options);
    int status = 0;
    if (demo->parsed()) {
        status = emulator::play_demo(sink);
    } else {
        emulator::Device device(scenario, cloud, sink);
        status = shell->parsed() ? _shell(device) : _in_front(device, command);
    }
    if (sink != nullptr) {
        std::fclose(sink);
    }
    return status;
} catch (const std::exception &error) {
    std::cerr << "extender: " << error.what() << '\n';
    return 1;
}
