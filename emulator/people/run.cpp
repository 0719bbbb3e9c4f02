// extender run: a command on the device; exits with its status.
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "conversation.h"
#include "front.h"
#include "journal_reader.h"
#include "replay.h"
#include "setting.h"

namespace {

constexpr int kDiffers = 124;  // no status of a command that ran, nor of a device that could not be had

struct Work {
    emulator::Setting setting;
    std::vector<std::string> words;
    std::string replay;
    bool fast = false;
};

void _tell(const emulator::Replay::Verdict &verdict) {
    const auto orNothing = [](const std::string &text) { return text.empty() ? "nothing" : text; };
    std::cerr << "extender: the conversation differs from the record";
    if (verdict.seq != 0) {
        std::cerr << " at its line " << verdict.seq << " (connection " << verdict.connection << ')';
    }
    std::cerr << ": " << verdict.first->where << "\n  then: " << orNothing(verdict.first->then)
              << "\n  now:  " << orNothing(verdict.first->now) << '\n';
    if (verdict.count > 1) {
        std::cerr << "  and " << verdict.count - 1 << " more\n";
    }
}

// The broker of the record in the place of the emulator's own.
int _replay(const Work &run, std::vector<emulator::Conversation> record) {
    return emulator::with_device(run.setting, [&](emulator::Control &control) {
        control.device().broker().stop();
        emulator::Replay replay(control.journal(), std::move(record), {run.fast, emulator::kBrokerPath});
        const int status = std::max(emulator::run_in_front(control, run.words), 0);
        const emulator::Replay::Verdict verdict = replay.finish();
        if (verdict.count > 0) {
            _tell(verdict);
        }
        return status == 0 && verdict.count > 0 ? kDiffers : status;
    });
}

}  // namespace

void emulator::add_run(CLI::App &app, int &status) {
    const auto run = std::make_shared<Work>();
    CLI::App *command = app.add_subcommand("run", "Run a command on the device; exits with its status.");
    add_device_options(*command, run->setting);
    add_name_option(*command, run->setting);
    CLI::Option *replay =
        command
            ->add_option("--replay", run->replay, "Journal whose broker answers, instead of the emulator's")
            ->check(readable_file());
    command->add_flag("--fast", run->fast, "Its answers come at once")->needs(replay);
    command->add_option("command", run->words, "The command, after --")->required();
    command->callback([run, &status] {
        run->setting.device.keep.push_back(run->words.front());
        if (!run->replay.empty()) {
            split_off();  // the journal is the host's
            status = _replay(*run, conversations(read_journal(run->replay)));
            return;
        }
        status = with_device(
            run->setting, [&](Control &control) { return std::max(run_in_front(control, run->words), 0); });
    });
}
