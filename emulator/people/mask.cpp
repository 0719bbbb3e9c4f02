// extender mask: a journal that may be given away.
#include "mask.h"

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "journal_reader.h"

void emulator::add_mask(CLI::App &app, int &status) {
    const auto path = std::make_shared<std::string>();
    CLI::App *command =
        app.add_subcommand("mask", "Prints a journal without passwords, tokens, accounts and device ids.");
    command->add_option("journal", *path, "The journal; - for standard input")->required();
    command->callback([path, &status] {
        const std::vector<json> records = read_journal(*path);
        Mask mask(records);
        for (const json &record : records) {
            std::cout << mask.line(record) << '\n';
        }
        std::cerr << mask.report();
        status = std::cout.flush() ? 0 : kNoDevice;
    });
}
