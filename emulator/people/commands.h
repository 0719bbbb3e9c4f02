// The commands of extender, each in a source of its name, but sweep in sweep_command.cpp, and exec, inject
// and state in join.cpp. Each function adds its command to the program: its options, and a callback that does
// the work and sets the exit status. The status must outlive the parser's run; what a callback throws ends
// the program with kNoDevice.
#pragma once

#include <CLI/CLI.hpp>

namespace emulator {

inline constexpr int kNoDevice = 125;  ///< Exit status for a failure of this program's own.

void add_run(CLI::App &app, int &status);
void add_shell(CLI::App &app, int &status);
void add_demo(CLI::App &app, int &status);
void add_progress(CLI::App &app, int &status);
void add_web(CLI::App &app, int &status);
void add_cost(CLI::App &app, int &status);
void add_show(CLI::App &app, int &status);
void add_exec(CLI::App &app, int &status);
void add_inject(CLI::App &app, int &status);
void add_state(CLI::App &app, int &status);
void add_mask(CLI::App &app, int &status);
void add_scenario(CLI::App &app, int &status);
void add_check(CLI::App &app, int &status);
void add_explain(CLI::App &app, int &status);
void add_sweep(CLI::App &app, int &status);

}  // namespace emulator
