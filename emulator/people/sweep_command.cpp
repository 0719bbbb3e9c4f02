// extender sweep: makes faults wherever a command can meet one, and judges what it does then.
#include <memory>

#include "commands.h"
#include "point.h"
#include "setting.h"
#include "sweep.h"

void emulator::add_sweep(CLI::App &app, int &status) {
    struct Asked {
        sweep::Options options;
        sweep::Command command;
        bool all = false;
        bool worker = false;
    };
    const auto asked = std::make_shared<Asked>();
    sweep::Options &options = asked->options;
    options.kinds.assign(sweep::kKinds.begin(), sweep::kKinds.end());
    const CLI::Validator isPoint(
        [](std::string &text) {
            try {
                static_cast<void>(sweep::parse_point(text));
                return std::string();
            } catch (const std::exception &error) {
                return std::string(error.what());
            }
        },
        "POINT");
    CLI::App *command = app.add_subcommand(
        "sweep", "Makes faults wherever a command can meet one, and judges what it does then.");
    command->add_option("--faults", options.kinds, "Kinds of faults (all of them)")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(CLI::IsMember(options.kinds));
    command->add_option("--limit", options.limit,
                        "At most so many points a command, of each kind about as many");
    command->add_option("--seed", options.seed, "Chooses other points under --limit");
    command->add_option("--jobs", options.jobs, "Runs side by side")->check(CLI::Range(1, 64));
    command->add_option("--watchdog", options.watchdog_s, "Seconds that a run may take")
        ->check(CLI::Range(1, 3600));
    command->add_flag("--json", options.json_output, "Print one JSON object instead of the table");
    command->add_option("--only", options.only, "Only this point, as a failure names it; may be repeated")
        ->allow_extra_args(false)
        ->check(isPoint);
    command
        ->add_option("--before", asked->command.before,
                     "A command that makes the device's state before; may be repeated")
        ->allow_extra_args(false);
    command->add_option("--scenario", options.scenario, "Faults and start values, JSON")
        ->check(readable_file());
    command->add_option("--cloud", options.cloud, "Changes to the model of the cloud, JSON")
        ->check(readable_file());
    command->add_flag("--all", asked->all, "Every command of cloud_msg");
    command->add_flag("--worker", asked->worker)->group("");
    command->add_option("command", asked->command.words,
                        "The command, after --; a word rsa:TEXT becomes TEXT, enciphered");
    command->callback([asked, &status] {
        if (asked->command.words.empty() && !asked->all) {
            throw CLI::RequiredError("A command (or --all)");
        }
        if (!asked->options.only.empty()) {
            asked->options.kinds.clear();
            for (const std::string &point : asked->options.only) {
                asked->options.kinds.push_back(sweep::parse_point(point).kind);
            }
        }
        const std::vector<sweep::Command> commands =
            asked->all ? sweep::all_commands() : std::vector<sweep::Command>{asked->command};
        status = asked->worker ? sweep::work(asked->options, asked->command)
                               : sweep::sweep_over(asked->options, commands);
    });
}
