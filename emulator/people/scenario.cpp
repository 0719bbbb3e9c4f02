// extender scenario: documents for the emulated device, out of a journal.
#include <cerrno>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>

#include "commands.h"
#include "conversation.h"
#include "journal_reader.h"
#include "scenario_writer.h"

namespace {

void _write(const std::string &path, const emulator::json &document) {
    if (!(std::ofstream(path) << document.dump(2) << '\n').flush()) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    std::cout << path << '\n';
}

}  // namespace

void emulator::add_scenario(CLI::App &app, int &status) {
    struct Paths {
        std::string journal;
        std::string folder = ".";
    };
    const auto paths = std::make_shared<Paths>();
    CLI::App *command = app.add_subcommand(
        "scenario", "Writes scenario.json and cloud.json that give the conversation of a journal.");
    command->add_option("journal", paths->journal, "The journal; - for standard input")->required();
    command->add_option("folder", paths->folder, "Where they go; the working folder without it")
        ->check(CLI::ExistingDirectory);
    command->callback([paths, &status] {
        const Documents documents = documents_of(conversations(read_journal(paths->journal)));
        _write(paths->folder + "/scenario.json", documents.scenario);
        _write(paths->folder + "/cloud.json", documents.cloud);
        status = 0;
    });
}
