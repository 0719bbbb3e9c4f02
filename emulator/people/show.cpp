// extender show: a journal for people, on the terminal or as a page.
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "commands.h"
#include "control_socket.h"
#include "journal_reader.h"
#include "sequence_page.h"
#include "sequence_text.h"

namespace {

using namespace emulator;  // NOLINT(google-build-using-namespace)

struct Show {
    std::string journal;
    std::string device;
    std::string html;
    bool follow = false;
};

// Without a journal: that of a device which runs.
JournalReader _open(const Show &show) {
    if (!show.journal.empty()) {
        return JournalReader(show.journal, show.follow);
    }
    Descriptor device = join_device(show.device);
    send_request(device, {{"do", "journal"}, {"follow", show.follow}});
    return JournalReader(std::move(device));
}

int _show(const Show &show) {
    JournalReader journal = _open(show);
    if (!show.html.empty()) {
        std::ofstream file;
        if (show.html != "-") {
            file.open(show.html, std::ios::binary);
            if (!file) {
                throw std::system_error(errno, std::generic_category(), show.html);
            }
        }
        std::ostream &out = show.html == "-" ? std::cout : file;
        write_page(out, journal, show.journal.empty() ? "a running device" : show.journal);
        if (!out.flush()) {
            throw std::system_error(errno, std::generic_category(), show.html);
        }
    } else {
        SequenceText text(std::cout, TextStyle::of(STDOUT_FILENO));
        text.header();
        while (const std::optional<json> record = journal.next()) {
            text.add(*record);
            if (!journal.ready()) {
                text.pause();
            }
        }
        text.flush();
    }
    if (journal.foreign() > 0) {
        std::cerr << "extender: " << journal.foreign()
                  << (journal.foreign() == 1 ? " line was no record.\n" : " lines were no records.\n");
    }
    return 0;
}

}  // namespace

void emulator::add_show(CLI::App &app, int &status) {
    const auto show = std::make_shared<Show>();
    CLI::App *command = app.add_subcommand("show", "A journal for people: who said what to whom, and when.");
    command->add_option("journal", show->journal,
                        "The file (-: standard input); without it, that of a running device");
    command->add_option("--device", show->device, "Name of the running device, where there are several");
    CLI::Option *const html =
        command->add_option("--html", show->html, "Write a page instead (-: standard output)");
    command->add_flag("--follow,-f", show->follow, "Go on while the journal grows")->excludes(html);
    command->callback([show, &status] { status = _show(*show); });
}
