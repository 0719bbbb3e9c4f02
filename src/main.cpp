// One run, one operation: the command word picks it, its result is printed, the exit status is 0.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "cloud_accountTask.h"
#include "cloud_localMsgTask.h"
#include "cloud_number.h"
#include "cloud_owner.h"
#include "cloud_path.h"
#include "cloud_switch.h"
#include "wrapper.h"

namespace {

// Straight to the descriptor, after what the client library may have logged there. From the first text on a
// reader that is gone raises no signal.
void _print(std::string_view text) {
    static_cast<void>(signal(SIGPIPE, SIG_IGN));
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
}

// Contract: lines end in a carriage return and a newline; kickoff and rmuser are not listed.
void cloud_printUsage() {
    _print(
        "Usage: \r\n"
        "\t cloud_msg -h                               Print usage\r\n"
        "\t cloud_msg download                         Start download firmware from cloud\r\n"
        "\t cloud_msg check                            Check the firmware\r\n"
        "\t cloud_msg update                           Update\r\n"
        "\t cloud_msg getFwList                        Get the latest firmware info\r\n"
        "\t cloud_msg online                           Check the cloud server connection\r\n"
        "\t cloud_msg unbind                           Unbind owner account\r\n"
        "\t cloud_msg getDevToken                      Get the token from cloud server\r\n"
        "\t cloud_msg factory                          Do some cloud operation when dut do factory\r\n"
        "\t cloud_msg alias <alias>                    Update dut alias to cloud, alias must be base64 "
        "encoded\r\n"
        "\t cloud_msg bind <email> <pwd>               Bind owner account, pwd must be RSA encrypt\r\n"
        "\t cloud_msg tmp_bind <email> <pwd>           Bind owner account, email and pwd must be base64 "
        "encoded, "
        "for Corvid\r\n"
        "\t cloud_msg tmp_unbind                       Unbind owner account for Corvid\r\n"
        "\t cloud_msg login <email> <pwd>              Login owner account, pwd must be RSA encrypt\r\n"
        "\t cloud_msg passthrough <method> <request>   Kmpd passthrough request to cloud, request must be "
        "base64 "
        "encoded\r\n"
        "\t cloud_msg getLogicStatus                   Get current connection mode, 0-short connection "
        "1-long "
        "connection\r\n"
        "\t cloud_msg setLogicStatus                   Set current connection mode\r\n"
        "\t cloud_msg getBindStatus                    Get device bind account or not, 0-unbind, 1-bind\r\n");
}

// A caller may have closed standard output or error: a descriptor that is opened next, the broker's socket
// say, would take its place and receive what is printed.
void _hold_output() {
    for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) {
            continue;
        }
        UniqueFd null(open("/dev/null", O_WRONLY));
        if (null.ok() && null.get() != fd) {
            dup2(null.get(), fd);
        } else {
            static_cast<void>(null.release());  // stays open in the place that was free
        }
    }
}

// A switch left by an earlier session would put the client library's log on standard output, where
// callers expect one number.
void cloud_initDebugSwitch() {
    if (cloud_isSwitchedOn(kDebugSwitchPath)) {
        return;
    }
    for (const char *path : kLogSwitchPaths) {
        if (access(path, F_OK) == 0) {
            unlink(path);
        }
    }
}

enum class Task { kUsage, kLocal, kAccount };

// A row of the command line. Contract: the first with that number of words whose own word begins the first
// argument is taken, so "downloadX" is a download.
struct Command {
    const char *word;
    size_t compared;  // characters of it
    int argc;         // the program's name included
    Task task;
    int code;
};

constexpr Command _row(const char *word, int argc, Task task, int code) {
    size_t length = 0;
    while (word[length] != '\0') {
        ++length;
    }
    return {word, length, argc, task, code};
}

constexpr std::array kCommands{
    _row("-h", 2, Task::kUsage, 0),
    _row("-H", 2, Task::kUsage, 0),
    _row("download", 2, Task::kLocal, kLocalDownload),
    _row("check", 2, Task::kLocal, kLocalCheck),
    _row("update", 2, Task::kLocal, kLocalUpdate),
    _row("getFwList", 2, Task::kAccount, kGetFwList),
    _row("unbind", 2, Task::kAccount, kUnbind),
    _row("getDevToken", 2, Task::kAccount, kGetDevToken),
    _row("online", 2, Task::kAccount, kOnline),
    _row("factory", 2, Task::kAccount, kFactory),
    _row("kickoff", 2, Task::kAccount, kKickoff),
    _row("tmp_unbind", 2, Task::kAccount, kTmpUnbind),
    _row("getLogicStatus", 2, Task::kAccount, kGetLogicStatus),
    _row("setLogicStatus", 2, Task::kAccount, kSetLogicStatus),
    _row("getBindStatus", 2, Task::kAccount, kGetBindStatus),
    _row("unbind", 3, Task::kAccount, kUnbind),
    _row("alias", 3, Task::kAccount, kAlias),
    _row("bind", 4, Task::kAccount, kBind),
    _row("tmp_bind", 4, Task::kAccount, kTmpBind),
    _row("login", 4, Task::kAccount, kLogin),
    Command{"rmuser", 5, 4, Task::kAccount, kRemoveUser},  // Contract: one letter short, "rmuse" will do.
    _row("passthrough", 4, Task::kAccount, kPassthrough),
};

const Command *_find_command(int argc, const char *word) {
    for (const Command &command : kCommands) {
        if (command.argc == argc && strncmp(word, command.word, command.compared) == 0) {
            return &command;
        }
    }
    return nullptr;
}

// Contract: two spellings.
void _print_argument_error(int argc) {
    switch (argc) {
        case 2:
            _print("Error, 2 invaild arguments! redo it\n");
            return;
        case 3:
            _print("Error, 3 invalid arguments! redo it\n");
            return;
        case 4:
            _print("Error, 4 invalid arguments! redo it\n");
            return;
        default:
            _print("invaild arguments! redo it\n");
    }
}

int _dispatch(int argc, char **argv) {
    const Command *command = argc >= 2 ? _find_command(argc, argv[1]) : nullptr;
    if (command == nullptr) {
        _print_argument_error(argc);
        return 0;
    }
    switch (command->task) {
        case Task::kUsage:
            cloud_printUsage();
            return 0;
        case Task::kLocal:
            // Firmware commands report through the status file.
            static_cast<void>(cloud_localMsgTask(static_cast<unsigned>(command->code)));
            return 0;
        case Task::kAccount:
            break;
    }
    return cloud_accountTask(command->code, argc > 2 ? argv[2] : nullptr, argc > 3 ? argv[3] : nullptr);
}

}  // namespace

int main(int argc, char **argv) {
    _hold_output();
    cloud_initDebugSwitch();
    wrpMemPoolMonitor();
    std::array<char, kNumberRoom> number;
    const int length = snprintf(number.data(), number.size(), "%d\n", _dispatch(argc, argv));
    _print({number.data(), static_cast<size_t>(length)});
    return 0;
}
