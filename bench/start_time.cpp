// start_time ROUNDS COMMAND... [-- COMMAND...]...: how long each command takes from start to end, the
// commands in turn in every round, so that what else the machine does meets all alike. Prints, a line
// each, the median and the least in microseconds and the median over that of the first command.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

namespace {

using Micros = std::chrono::duration<double, std::micro>;

struct Command {
    std::vector<char *> argv;
    std::vector<double> times;
};

double _run(const Command &command, const posix_spawn_file_actions_t &quiet) {
    const auto begin = std::chrono::steady_clock::now();
    pid_t pid = 0;
    if (posix_spawn(&pid, command.argv[0], &quiet, nullptr, command.argv.data(), environ) != 0) {
        std::perror(command.argv[0]);
        std::exit(1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return Micros(std::chrono::steady_clock::now() - begin).count();
}

}  // namespace

int main(int argc, char **argv) {
    const int rounds = argc > 2 ? std::atoi(argv[1]) : 0;
    if (rounds < 1) {
        std::fputs("Usage: start_time ROUNDS COMMAND... [-- COMMAND...]...\n", stderr);
        return 2;
    }
    std::vector<Command> commands(1);
    for (int i = 2; i < argc; ++i) {
        if (std::string_view(argv[i]) == "--") {
            commands.emplace_back();
        } else {
            commands.back().argv.push_back(argv[i]);
        }
    }
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    for (Command &command : commands) {
        command.argv.push_back(nullptr);
    }
    for (int round = 0; round < rounds; ++round) {
        for (Command &command : commands) {
            command.times.push_back(_run(command, quiet));
        }
    }
    double first = 0;
    for (Command &command : commands) {
        std::sort(command.times.begin(), command.times.end());
        const double median = command.times[command.times.size() / 2];
        first = first > 0 ? first : median;
        std::printf("%8.0f us median %8.0f us least %6.2f  %s\n", median, command.times.front(),
                    median / first, command.argv[0]);
    }
    return 0;
}
