// extender progress: a firmware command's progress, in the shell of a device.
#include "progress.h"

#include <unistd.h>

#include <iostream>
#include <stdexcept>
#include <string>

#include "commands.h"
#include "namespace.h"

namespace {

int _progress() {
    if (access(emulator::kPrivateFolder, F_OK) != 0) {
        throw std::runtime_error("progress is typed in the shell of a device (extender shell)");
    }
    std::string left;
    {
        const emulator::ProgressBar bar(std::cout);
        left = bar.await_end();
    }
    std::cerr << left;
    return left.empty() ? 0 : 1;
}

}  // namespace

void emulator::add_progress(CLI::App &app, int &status) {
    app.add_subcommand("progress", "Shows a firmware command's progress; in the shell of a device.")
        ->callback([&status] { status = _progress(); });
}
