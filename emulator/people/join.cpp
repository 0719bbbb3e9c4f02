// extender exec, extender inject, extender state: a running device, joined from another terminal.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "control_socket.h"
#include "fault.h"

namespace {

using namespace emulator;  // NOLINT(google-build-using-namespace)

// Signals of this terminal are handed on to the command, which runs in another session.
int _exec(const std::string &name, const std::vector<std::string> &words) {
    const Descriptor device = join_device(name);
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaddset(&set, signal);
    }
    sigprocmask(SIG_BLOCK, &set, nullptr);
    const Descriptor signals(signalfd(-1, &set, SFD_CLOEXEC));
    const char *const term = std::getenv("TERM");
    send_request(device, {{"do", "exec"}, {"argv", words}, {"term", term != nullptr ? term : "dumb"}}, true);
    std::array<pollfd, 2> inputs{{{device.get(), POLLIN, 0}, {signals.get(), POLLIN, 0}}};
    while (poll(inputs.data(), inputs.size(), -1) < 0 || inputs[0].revents == 0) {
        signalfd_siginfo info{};
        if (inputs[1].revents != 0 && read(signals.get(), &info, sizeof info) == sizeof info) {
            send_request(device, {{"signal", info.ssi_signo}});
        }
    }
    return read_answer(device).at("status");
}

int _inject(const std::string &name, const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    static_cast<void>(parse_fault(text));  // what is misspelt needs no device
    const Descriptor device = join_device(name);
    send_request(device, {{"do", "inject"}, {"fault", text}});
    std::cout << dump(read_answer(device).at("action")) << '\n';
    return 0;
}

int _ask(const std::string &name, const char *what) {
    const Descriptor device = join_device(name);
    send_request(device, {{"do", what}});
    std::cout << read_answer(device).dump(2, ' ', false, json::error_handler_t::replace) << '\n';
    return 0;
}

struct Join {
    std::string device;
    std::vector<std::string> words;
};

std::shared_ptr<Join> _add(CLI::App &command) {
    auto join = std::make_shared<Join>();
    command.add_option("--device", join->device, "Name of the running device, where there are several");
    return join;
}

}  // namespace

void emulator::add_exec(CLI::App &app, int &status) {
    CLI::App *command =
        app.add_subcommand("exec", "Runs a command on a device that runs; exits with its status.");
    const auto join = _add(*command);
    command->add_option("command", join->words, "The command, after --")->required();
    command->callback([join, &status] { status = _exec(join->device, join->words); });
}

void emulator::add_inject(CLI::App &app, int &status) {
    CLI::App *command =
        app.add_subcommand("inject", "A fault for a device that runs, in words or as a rule.");
    const auto join = _add(*command);
    command->add_option("rule", join->words, "For example: answer -20580")->required()->expected(-1);
    command->footer("Faults:\n" + fault_help());
    command->callback([join, &status] { status = _inject(join->device, join->words); });
}

void emulator::add_state(CLI::App &app, int &status) {
    CLI::App *command = app.add_subcommand("state", "How a device that runs stands, as JSON.");
    const auto join = _add(*command);
    const auto scenario = std::make_shared<bool>(false);
    command->add_flag("--scenario", *scenario, "Instead, a scenario of what was injected");
    command->callback(
        [join, scenario, &status] { status = _ask(join->device, *scenario ? "scenario" : "state"); });
}
