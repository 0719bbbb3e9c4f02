// extender cost: what a command costs on the device, and whether that is within a budget.
#include "cost.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "budget.h"
#include "commands.h"
#include "document.h"
#include "namespace.h"
#include "setting.h"
#include "table.h"

namespace {

using emulator::json;

constexpr int kOver = 1;
constexpr int kDefaultRounds = 20;
// Some figures differ from run to run (the numbers of an RSA key's blinding take more or less memory, so more
// or fewer calls for it): only what is above its limit each time is growth.
constexpr int kLooks = 6;

struct Wish {
    emulator::Setting setting;
    emulator::CostOptions options;
    std::string against;
    std::string budget;
    std::string build = "device";
    bool as_json = false;
};

std::vector<std::string> _words(const std::string &text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

std::string _text(const std::vector<std::string> &words) {
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

// "rsa:TEXT" stands for TEXT encrypted with the key of this device.
std::vector<std::string> _encrypted(emulator::Device &device, std::vector<std::string> words) {
    for (std::string &word : words) {
        word = word.starts_with("rsa:") ? device.encrypt(word.substr(4)) : word;
    }
    return words;
}

// Several words are a command of their own; one is a program that is given the same arguments.
std::vector<std::string> _against(const std::string &text, const std::vector<std::string> &command) {
    std::vector<std::string> words = _words(text);
    if (words.size() == 1) {
        words.insert(words.end(), command.begin() + 1, command.end());
    }
    return words;
}

// A command, and what it may cost.
struct Entry {
    std::vector<std::string> command;
    std::string before;
    json limits = json::object();
};

// The commands to be measured: the one that was given, or each that the budget has.
std::vector<Entry> _entries(const Wish &wish, const json &budget) {
    if (wish.budget.empty()) {
        return {{wish.options.command, wish.options.before}};
    }
    const json &commands = emulator::budget_of(budget, wish.build);
    std::vector<Entry> entries;
    for (const auto &[text, entry] : commands.items()) {
        if (wish.options.command.empty() || text == _text(wish.options.command)) {
            const std::string before = entry.value("before", "");
            entries.push_back({_words(text), wish.options.before.empty() ? before : wish.options.before,
                               entry.at("limits")});
        }
    }
    if (entries.empty()) {
        throw std::invalid_argument("the budget has nothing for \"" + _text(wish.options.command) + "\"");
    }
    return entries;
}

json _measure(emulator::Device &device, const Wish &wish, const Entry &entry) {
    emulator::CostOptions options = wish.options;
    options.command = _encrypted(device, entry.command);
    options.before = entry.before;
    if (!wish.against.empty()) {
        options.against = _against(wish.against, options.command);
    }
    json cost = emulator::measure_cost(device, options);
    cost["command"] = entry.command;  // as it was given
    return cost;
}

// @return whether all are within their limits; what is not goes to standard error, a line each.
bool _report(const Wish &wish, const std::vector<Entry> &entries, const std::vector<json> &costs) {
    if (wish.as_json) {
        std::cout << (costs.size() == 1 ? costs[0] : json(costs)).dump(2) << '\n';
    } else {
        for (const json &cost : costs) {
            emulator::print_cost(std::cout, cost);
            std::cout << (costs.size() > 1 ? "\n" : "");
        }
    }
    std::cout.flush();
    bool within = true;
    for (size_t i = 0; i < costs.size(); ++i) {
        for (const std::string &line : emulator::over_budget(costs[i], entries[i].limits)) {
            std::cerr << _text(entries[i].command) << ": " << line << '\n';
            within = false;
        }
    }
    return within;
}

int _cost(Wish wish) {
    emulator::split_off();
    const json budget = emulator::read_document(wish.budget);
    const std::vector<Entry> entries = _entries(wish, budget);
    for (const auto &words : {wish.options.command, _words(wish.against), wish.options.other_files}) {
        wish.setting.device.keep.insert(wish.setting.device.keep.end(), words.begin(), words.end());
    }
    return emulator::in_device(wish.setting, [&](std::FILE *sink, json scenario, const json &cloud) {
        if (!scenario.contains("image")) {
            scenario["image"]["rules"] = json::array();  // as fast as it goes
        }
        std::vector<json> costs;
        for (const Entry &entry : entries) {
            json cost;
            int looks = kLooks;
            do {
                static_cast<void>(emulator::at_work(sink, scenario, cloud,
                                                    [&](emulator::Device &device, emulator::ImageServer &) {
                                                        cost = _measure(device, wish, entry);
                                                        return 0;
                                                    }));
            } while (--looks > 0 && !emulator::over_budget(cost, entry.limits).empty());
            costs.push_back(std::move(cost));
        }
        return _report(wish, entries, costs) ? 0 : kOver;
    });
}

}  // namespace

void emulator::add_cost(CLI::App &app, int &status) {
    const auto wish = std::make_shared<Wish>();
    CLI::App *command = app.add_subcommand(
        "cost", "What a command costs: flash, memory, time, system calls, messages, files written.");
    add_device_options(*command, wish->setting);
    wish->options.rounds = kDefaultRounds;
    command->add_option("--rounds", wish->options.rounds, "Rounds in which times are compared; 0: none")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    command->add_option(
        "--against", wish->against,
        "Program to compare times with, given the same arguments; several words are a command");
    command->add_option("--before", wish->options.before, "Shell command before each run, not measured");
    command
        ->add_option("--file", wish->options.other_files, "Counts as flash, too: a file that is not loaded")
        ->check(CLI::ExistingFile);
    CLI::Option *budget =
        command->add_option("--budget", wish->budget, "Limits, JSON; exit status 1 above one")
            ->check(CLI::ExistingFile);
    command->add_option("--build", wish->build, "Part of the budget")->needs(budget)->capture_default_str();
    command->add_flag("--json", wish->as_json, "For programs");
    command->add_option("command", wish->options.command,
                        "The command, after --; left out: each that the budget has");
    command->callback([wish, budget, &status] {
        if (wish->options.command.empty() && budget->count() == 0) {
            throw CLI::RequiredError("A command");
        }
        status = _cost(*wish);
    });
}
