#include "foreign_broker.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "journal_reader.h"
#include "process.h"

namespace emulator {
namespace {

constexpr int kLastWordsMs = 1000;  // for connections that are still open when the tap is to end

std::pair<Descriptor, Descriptor> _pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

}  // namespace

ForeignBroker::ForeignBroker(Journal &journal) {
    auto [lines, lines_in] = _pipe();
    auto [messages, messages_in] = _pipe();
    std::vector<std::string> words{"kxcc-tap", "--wait"};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, lines_in.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, messages_in.get(), STDERR_FILENO);
    const int error =
        posix_spawnp(&pid_, words[0].c_str(), &actions, nullptr, exec_pointers(words).data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        pid_ = -1;
        std::cerr << "The journal will not have what the broker says: kxcc-tap: " << std::strerror(error)
                  << '\n';
        return;
    }
    lines_in.reset();
    messages_in.reset();
    messages_ = std::move(messages);
    char first = 0;  // it says that there is no broker yet
    [[maybe_unused]] const ssize_t said = read(messages_.get(), &first, 1);
    reader_ = std::thread([&journal, input = std::move(lines)]() mutable {
        JournalReader reader(std::move(input));
        while (std::optional<json> record = reader.next()) {
            const std::string kind = record->at("kind");
            for (const char *own : {"seq", "t", "kind"}) {  // the device's journal has its own
                record->erase(own);
            }
            journal.add(kind, *record);
        }
    });
}

ForeignBroker::~ForeignBroker() {
    if (pid_ < 0) {
        return;
    }
    const Descriptor end(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    pollfd ended{end.get(), POLLIN, 0};
    kill(pid_, SIGTERM);
    if (poll(&ended, 1, kLastWordsMs) == 0) {
        kill(pid_, SIGINT);  // the second signal cuts what is still open
    }
    waitpid(pid_, nullptr, 0);
    reader_.join();
}

}  // namespace emulator
