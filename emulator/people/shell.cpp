// extender shell: an interactive shell on the device.
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "front.h"
#include "setting.h"

namespace {

int _shell(emulator::Control &control) {
    std::cout << "An emulated extender: its own /tmp, /dev/console, scripts, broker and cloud. Try\n"
                 "  cloud_msg bind alice@example.com \"$(cloud_rsa encrypt Secret-1)\"\n"
                 "  cloud_msg getBindStatus; cloud_store dump; ls /tmp; cat /tmp/cloud.error\n"
                 "  cloud_msg passthrough getWeather \"$(echo '{}' | base64)\"; cloud_msg -h\n"
                 "  cloud_msg check; cloud_msg download & extender progress; cloud_msg update\n"
                 "Other accounts: bob@example.com Secret-2, carol@example.com Secret-3. Leave with exit.\n";
    std::cout
        << "From another terminal: extender show --follow, extender exec -- COMMAND, extender inject -h\n";
    std::cout.flush();
    setenv("PS1", "extender:\\w# ", 1);
    std::vector<std::string> words{"bash", "--norc", "--noprofile"};
    if (isatty(STDIN_FILENO) != 0) {
        words.emplace_back("-i");
    }
    int code = emulator::kRestarted;
    while (code == emulator::kRestarted) {
        code = emulator::run_in_front(control, words);
    }
    return code;
}

}  // namespace

void emulator::add_shell(CLI::App &app, int &status) {
    const auto setting = std::make_shared<Setting>();
    CLI::App *command = app.add_subcommand("shell", "An interactive shell on the device.");
    add_device_options(*command, *setting);
    add_name_option(*command, *setting);
    command->callback([setting, &status] { status = with_device(*setting, _shell); });
}
