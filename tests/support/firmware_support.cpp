#include "firmware_support.h"

#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <system_error>

namespace firmware {
namespace {

// The last change of the document: a change puts its members at the end.
std::string last_change(const std::string &text) {
    const json document = json::parse(text, nullptr, false);
    if (!document.is_object() || document.empty()) {
        return "unreadable: " + text;
    }
    std::string last;
    for (const auto &member : document.items()) {
        last = member.key();
    }
    if (last == "cloud_start") {
        return "start " + document.at(last).dump();
    }
    return document.at("fw_status").dump() + " " + document.at("dwProgress").dump();
}

// Notices that the file was replaced, or its content overwritten.
class StatusWatch {
public:
    StatusWatch() { static_cast<void>(_changed()); }
    void look() {
        if (_changed()) {
            changes.push_back(last_change(content_));
        }
    }
    Strings changes;

private:
    bool _changed() {
        struct stat now {};
        if (stat(kStatusFile.c_str(), &now) != 0) {
            return false;
        }
        std::string content = program::file(kStatusFile);
        const bool changed = now.st_ino != file_ || content != content_;
        file_ = now.st_ino;
        content_ = std::move(content);
        return changed;
    }
    ino_t file_ = 0;
    std::string content_;
};

// Starts a program that waits for its tracer.
pid_t start_traced(Strings &words) {
    std::vector<char *> argv;
    for (std::string &word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // which is not to be had under a tracer
    const pid_t pid = fork();
    if (pid == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        const int nothing = dup2(STDERR_FILENO, STDOUT_FILENO);
        static_cast<void>(nothing);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    unsetenv("ASAN_OPTIONS");
    return pid;
}

}  // namespace

std::string pattern(size_t size) {
    uint64_t state = 20210611;
    std::string text(size, '\0');
    for (char &byte : text) {
        byte = static_cast<char>(next_number(state) >> 32U);
    }
    return text;
}

std::string image(Device &device, const std::string &version, size_t payloadBytes) {
    const std::string path = "/tmp/made.img";
    const auto run = device.run(
        {"cloud_image", "make", "--version", version, "--size", std::to_string(payloadBytes), "-o", path});
    EXPECT_EQ(run.status, 0) << run.err;
    std::string content = program::file(path);
    unlink(path.c_str());
    return content;
}

json entry(const std::string &version, const std::string &url) {
    return {{"fwType", 2},
            {"fwVer", version},
            {"fwReleaseDate", "2021-06-11"},
            {"fwUrl", url},
            {"fwReleaseLog", "Security fixes."},
            {"fwReleaseLogUrl", "http://localhost/log.html"},
            {"fwLocation", 0}};
}

void put_status_file() {
    program::write_file(
        kStatusFile, R"({"fw_status":0,"first":[1,{"a":null}],"cloud_start":1,"dwProgress":0,"last":"x"})");
}

std::string other_members() {
    json document = json::parse(program::file(kStatusFile), nullptr, false);
    for (const char *name : {"fw_status", "dwProgress", "cloud_start"}) {
        document.erase(name);
    }
    return document.dump();
}

Strings watch(const Strings &arguments) {
    Strings words = emulator::cloud_msg_command();
    words.insert(words.end(), arguments.begin(), arguments.end());
    StatusWatch status;
    const pid_t pid = start_traced(words);
    int state = 0;
    for (int signal = 0; waitpid(pid, &state, __WALL) == pid && WIFSTOPPED(state);) {
        status.look();
        signal = WSTOPSIG(state) == SIGTRAP ? 0 : WSTOPSIG(state);
        ptrace(PTRACE_SYSCALL, pid, nullptr, signal);
    }
    EXPECT_TRUE(WIFEXITED(state) && WEXITSTATUS(state) == 0) << "wait status " << state;
    return status.changes;
}

void offer(Device &device, const std::string &url, const std::string &version) {
    device.cloud().change({{"firmware", json::array({entry(version, url)})}});
    EXPECT_EQ(program::printed(device, {"getFwList"}), "0\n") << device.journal().text();
}

Strings requests(Device &device) {
    Strings lines;
    for (const json &record : device.journal().of_kind("http")) {
        lines.push_back(record.at("method").get<std::string>() + " " + record.at("range").get<std::string>() +
                        " " + record.at("status").dump() + " " + record.at("sent").dump());
    }
    return lines;
}

}  // namespace firmware
