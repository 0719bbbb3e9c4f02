// extender run: a command on the device; exits with its status.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "front.h"
#include "setting.h"

void emulator::add_run(CLI::App &app, int &status) {
    struct Run {
        Setting setting;
        std::vector<std::string> words;
    };
    const auto run = std::make_shared<Run>();
    CLI::App *command = app.add_subcommand("run", "Run a command on the device; exits with its status.");
    add_device_options(*command, run->setting);
    command->add_option("command", run->words, "The command, after --")->required();
    command->callback([run, &status] {
        run->setting.device.keep.push_back(run->words.front());
        status = with_device(
            run->setting, [&](Control &control) { return std::max(run_in_front(control, run->words), 0); });
    });
}
