// The emulated device as a program: run a command on it, use it by hand, or watch its life.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "demo.h"
#include "descriptor.h"
#include "device.h"
#include "document.h"
#include "firmware.h"
#include "image_scenario.h"
#include "namespace.h"

namespace {

using emulator::json;

constexpr int kNoCommand = 127;
constexpr int kNoDevice = 125;  // a failure of this program's own
constexpr int kRestarted = -1;
constexpr size_t kImageBytes = 4000000;
constexpr std::chrono::milliseconds kLookEvery{50};
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
    // A device that restarts takes what runs in front with it.
    std::thread power([pid] {
        while (g_command == pid && !emulator::Device::restart_due()) {
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
    if (!emulator::Device::restart_due()) {
        return code;
    }
    device.restart();
    emulator::put_status_file();
    std::cout << "\nThe device has restarted. It runs " << std::ifstream("/tmp/softinfo").rdbuf();
    return kRestarted;
}

int _shell(emulator::Device &device) {
    std::cout << "An emulated extender: its own /tmp, /dev/console, scripts, broker and cloud. Try\n"
                 "  cloud_msg bind alice@example.com \"$(cloud_rsa encrypt Secret-1)\"\n"
                 "  cloud_msg getBindStatus; cloud_store dump; ls /tmp; cat /tmp/cloud.error\n"
                 "  cloud_msg passthrough getWeather \"$(echo '{}' | base64)\"; cloud_msg -h\n"
                 "  cloud_msg check; cloud_msg download & extender progress; cloud_msg update\n"
                 "Other accounts: bob@example.com Secret-2, carol@example.com Secret-3. Leave with exit.\n";
    std::cout.flush();
    setenv("PS1", "extender:\\w# ", 1);
    std::vector<std::string> words{"bash", "--norc", "--noprofile"};
    if (isatty(STDIN_FILENO) != 0) {
        words.emplace_back("-i");
    }
    int code = kRestarted;
    while (code == kRestarted) {
        code = _in_front(device, words);
    }
    return code;
}

// Shows the firmware's state until its command has ended.
int _progress() {
    if (access(emulator::kPrivateFolder, F_OK) != 0) {
        throw std::runtime_error("progress is typed in the shell of a device (extender shell)");
    }
    const emulator::ProgressBar bar(std::cout);
    bar.await_end();
    return 0;
}

struct CloseFile {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// Null for no path. What standard output or error goes to as well is shared with it, to its place in it.
File _open_journal(const std::string &path) {
    File sink;
    struct stat named {};
    const bool there = stat(path.c_str(), &named) == 0;
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        struct stat open {};
        if (there && sink == nullptr && fstat(fd, &open) == 0 && open.st_dev == named.st_dev &&
            open.st_ino == named.st_ino) {
            emulator::Descriptor copy(fcntl(fd, F_DUPFD_CLOEXEC, 0));
            sink.reset(fdopen(copy.get(), "w"));
            static_cast<void>(sink != nullptr ? copy.release() : -1);  // the file's now
        }
    }
    if (sink == nullptr && !path.empty()) {
        sink.reset(std::fopen(path.c_str(), "we"));
        if (sink == nullptr) {
            throw std::system_error(errno, std::generic_category(), path);
        }
    }
    return sink;
}

struct Options {
    enum class Command { kRun, kShell, kDemo, kProgress } chosen = Command::kRun;
    std::string scenario;
    std::string cloud;
    std::string journal;
    emulator::DeviceOptions device;
    std::vector<std::string> words;  // of the command to run
};

// @return false when there is nothing left to do; *status is then the program's.
bool _parse(int argc, char **argv, Options &options, int &status) {
    using Command = Options::Command;
    CLI::App app{"A Wi-Fi range extender, emulated: the neighbours of cloud_msg in a private device."};
    const auto add = [&](const char *name, Command command, const char *text) {
        CLI::App *one = app.add_subcommand(name, text);
        one->callback([&options, command] { options.chosen = command; });
        return one;
    };
    CLI::App *run = add("run", Command::kRun, "Run a command on the device; exits with its status.");
    CLI::App *shell = add("shell", Command::kShell, "An interactive shell on the device.");
    CLI::App *demo = add("demo", Command::kDemo, "Plays the life of a device, step by step.");
    add("progress", Command::kProgress, "Shows a firmware command's progress; in the shell of a device.");
    for (CLI::App *each : {run, shell, demo}) {
        each->add_option("--journal", options.journal,
                         "File that gets a JSON line for everything that happens (/dev/stderr, too)");
    }
    for (CLI::App *each : {run, shell}) {
        each->add_option("--scenario", options.scenario, "Faults and start values, JSON")
            ->check(CLI::ExistingFile);
        each->add_option("--cloud", options.cloud, "Changes to the model of the cloud, JSON")
            ->check(CLI::ExistingFile);
        each->add_option("--flash", options.device.flash, "Folder that is the flash and outlives the run")
            ->check(CLI::ExistingDirectory);
    }
    run->add_option("command", options.words, "The command, after --")->required();
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty()) {  // not required above: a word that is none is named then
            throw CLI::RequiredError("A subcommand");
        }
        return true;
    } catch (const CLI::ParseError &error) {
        status = app.exit(error) == 0 ? 0 : kNoDevice;
        return false;
    }
}

// Enters the device and does there what was chosen.
int _play(Options &options) {
    // Files of the host: read and opened once, while its /tmp is still in sight.
    emulator::split_off();
    const json scenario = emulator::read_document(options.scenario);
    const json cloud = emulator::read_document(options.cloud);
    const File sink = _open_journal(options.journal);
    if (!options.words.empty()) {
        options.device.keep.push_back(options.words.front());
    }
    emulator::enter_device(options.device);
    int status = 0;
    if (options.chosen == Options::Command::kDemo) {
        status = emulator::play_demo(sink.get());
    } else {
        emulator::Device device(scenario, cloud, sink.get());
        const auto server =
            emulator::make_image_server(device.journal(), scenario.value("image", json::object()));
        if (!cloud.contains("firmware")) {
            emulator::offer_firmware(device, *server, emulator::kNewVersion, kImageBytes);
        }
        emulator::put_status_file();
        const bool by_hand = options.chosen == Options::Command::kShell;
        status = by_hand ? _shell(device) : std::max(_in_front(device, options.words), 0);
    }
    return status;
}

}  // namespace

int main(int argc, char **argv) try {
    if (argc > 2 && std::string_view(argv[1]) == "record") {
        emulator::enter_device();  // only reports the script
    }
    Options options;
    int status = 0;
    if (!_parse(argc, argv, options, status)) {
        return status;
    }
    return options.chosen == Options::Command::kProgress ? _progress() : _play(options);
} catch (const std::exception &error) {
    std::cerr << "extender: " << error.what() << '\n';
    return kNoDevice;
}
