// The emulated device as a program: finds the command among those of commands.h and runs it.
#include <algorithm>
#include <exception>
#include <iostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "namespace.h"
#include "nearest_word.h"

namespace {

constexpr auto kCommands = {emulator::add_run,      emulator::add_shell,    emulator::add_demo,
                            emulator::add_progress, emulator::add_show,     emulator::add_exec,
                            emulator::add_inject,   emulator::add_state,    emulator::add_cost,
                            emulator::add_mask,     emulator::add_scenario, emulator::add_check,
                            emulator::add_explain,  emulator::add_sweep,    emulator::add_web};

// Names a word that is none of those known, with the nearest of them. @return whether it is none.
// @param before  the words before it that were taken, the program's name first.
bool _is_wrong(const char *kind, const std::string &word, const std::vector<std::string> &known,
               const std::string &before) {
    if (std::ranges::find(known, word) != known.end()) {
        return false;
    }
    std::cerr << "extender: there is no " << kind << ' ' << word;
    if (const std::string_view near = nearest_word(word, known); !near.empty()) {
        std::cerr << "; did you mean " << near << '?';
    }
    std::cerr << " (see " << before << " --help)\n";
    return true;
}

std::vector<std::string> _commands(const CLI::App &app) {
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands(nullptr)) {
        names.push_back(command->get_name());
    }
    return names;
}

std::vector<std::string> _options(const CLI::App &app) {
    std::vector<std::string> names;
    for (const CLI::Option *option : app.get_options()) {
        for (const std::string &name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

// The parser's own message names what follows a word that it does not know, not the word.
bool _has_wrong_word(const CLI::App &app, std::span<char *const> words) {
    const CLI::App *command = &app;
    std::string before = "extender";
    for (const std::string word : words) {
        if (word == "--") {
            break;
        }
        const std::vector<std::string> commands = _commands(*command);
        if (word.starts_with("--")) {
            if (_is_wrong("option", word.substr(0, word.find('=')), _options(*command), before)) {
                return true;
            }
        } else if (!commands.empty() && !word.starts_with('-')) {
            if (_is_wrong("command", word, commands, before)) {
                return true;
            }
            command = command->get_subcommand(word);
            before += ' ' + word;
        }
    }
    return false;
}

// Prints what was asked for (a help text, the version) or what is wrong. @return the exit status.
int _tell(const CLI::App &app, const CLI::ParseError &error) {
    if (error.get_exit_code() == 0) {
        return app.exit(error);
    }
    std::string before = "extender";
    for (const CLI::App *command = &app; !command->get_subcommands().empty();) {
        command = command->get_subcommands().front();
        before += ' ' + command->get_name();
    }
    std::cerr << "extender: " << error.what() << " (see " << before << " --help)\n";
    return emulator::kNoDevice;
}

}  // namespace

int main(int argc, char **argv) try {
    if (argc > 2 && std::string_view(argv[1]) == "record") {
        emulator::enter_device();  // only reports the script
    }
    int status = 0;
    CLI::App app{"A Wi-Fi range extender, emulated: the neighbours of cloud_msg in a private device."};
    app.set_version_flag("--version", "extender " CLOUD_VERSION, "Print the version and exit");
    for (const auto add : kCommands) {
        add(app, status);
    }
    if (_has_wrong_word(app, std::span(argv, static_cast<size_t>(argc)).subspan(argc > 0 ? 1 : 0))) {
        return emulator::kNoDevice;
    }
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty()) {  // not required above: a word that is none is named then
            throw CLI::RequiredError("A subcommand");
        }
    } catch (const CLI::ParseError &error) {
        return _tell(app, error);
    }
    return status;
} catch (const std::exception &error) {
    std::cerr << "extender: " << error.what() << '\n';
    return emulator::kNoDevice;
}
