// The emulated device as a program: run a command on it, use it by hand, or watch its life.
#include <exception>
#include <iostream>
#include <string_view>

#include "commands.h"
#include "namespace.h"

namespace {

constexpr auto kCommands = {emulator::add_run,      emulator::add_shell,    emulator::add_demo,
                            emulator::add_progress, emulator::add_show,     emulator::add_exec,
                            emulator::add_inject,   emulator::add_state,    emulator::add_cost,
                            emulator::add_mask,     emulator::add_scenario, emulator::add_check,
                            emulator::add_explain,  emulator::add_sweep,    emulator::add_web};

}  // namespace

int main(int argc, char **argv) try {
    if (argc > 2 && std::string_view(argv[1]) == "record") {
        emulator::enter_device();  // only reports the script
    }
    int status = 0;
    CLI::App app{"A Wi-Fi range extender, emulated: the neighbours of cloud_msg in a private device."};
    for (const auto add : kCommands) {
        add(app, status);
    }
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty()) {  // not required above: a word that is none is named then
            throw CLI::RequiredError("A subcommand");
        }
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : emulator::kNoDevice;
    }
    return status;
} catch (const std::exception &error) {
    std::cerr << "extender: " << error.what() << '\n';
    return emulator::kNoDevice;
}
