// The extender program, run inside this device, which is its host.
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "await.h"
#include "device.h"
#include "process.h"

namespace emulator {
namespace {

std::string _extender() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "extender";
}

Process _start_extender(std::vector<std::string> words) {
    words.insert(words.begin(), _extender());
    return Process(std::move(words));
}

TEST(Extender, ShowsTheProgressOfACommandThatStartsAfterAnotherHasEnded) {
    const auto put = [](const char *status) {
        std::ofstream("/tmp/new") << R"({"dwProgress":0,"fw_status":)" << status << '}';
        std::filesystem::rename("/tmp/new", "/tmp/cloud.info");
    };
    const std::ofstream lock("/tmp/cloud_dl_img.lock");  // held, as by a command that runs
    put("5");
    Process progress = _start_extender({"progress"});
    ASSERT_TRUE(test::await([&] { return progress.out().find("asked the cloud") != std::string::npos; }));
    put("1");
    put("2");
    EXPECT_THAT(progress.wait().out, testing::EndsWith("0 % downloaded\n"));
}

struct Exit {
    const char *name;
    std::vector<std::string> command;
    int status;
};

void PrintTo(const Exit &row, std::ostream *out) {
    *out << row.name;
}

class ExtenderRun : public testing::TestWithParam<Exit> {};

TEST_P(ExtenderRun, ExitsWithTheCommandsStatus) {
    std::vector<std::string> words = GetParam().command;
    words.insert(words.begin(), {"run", "--"});
    EXPECT_EQ(_start_extender(words).wait().status, GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(Rows, ExtenderRun,
                         testing::Values(Exit{"good", {"true"}, 0}, Exit{"status", {"sh", "-c", "exit 7"}, 7},
                                         Exit{"signal", {"sh", "-c", "kill -KILL $$"}, 137},
                                         Exit{"no_command", {"/nosuch"}, 127}),
                         [](const auto &row) { return row.param.name; });

TEST(Extender, LeavesNothingBehind) {
    const auto host = [] {
        const auto run =
            Process({"sh", "-c",
                     "cat /proc/self/mountinfo; find /tmp /mnt /dev /usr/bin/dropbreload; ps -e -o comm"})
                .wait();
        return run.out;
    };
    const std::string before = host();
    const auto run = _start_extender({"run", "--", "sh", "-c",
                                      "touch /tmp/left /mnt/left /dev/shm/left; sleep 1000 & dropbreload"})
                         .wait();
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(host(), before);
}

struct User {
    const char *name;
    std::vector<std::string> become;
};

void PrintTo(const User &row, std::ostream *out) {
    *out << row.name;
}

class ExtenderKeepsTheHost : public testing::TestWithParam<User> {};

// The host is this device, with a folder for everybody made anew, and one below /tmp, where the command
// works.
TEST_P(ExtenderKeepsTheHost, FromWhatACommandWrites) {
    std::vector<std::string> words = GetParam().become;
    const auto asUser = [&](std::vector<std::string> more) {
        more.insert(more.begin(), words.begin(), words.end());
        return Process(std::move(more)).wait();
    };
    if (asUser({"true"}).status != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    ASSERT_EQ(mount("tmpfs", "/srv", "tmpfs", 0, "mode=0777"), 0);
    const std::string host = std::string("/tmp/host_of_") + GetParam().name;
    std::filesystem::create_directories(host + "/flash");
    for (const std::string &folder : {host, host + "/flash"}) {
        std::filesystem::permissions(folder, std::filesystem::perms::all);
    }
    std::filesystem::current_path(host);
    const auto run = asUser(
        {_extender(), "run", "--flash", "flash", "--journal", "j", "--", "sh", "-c",
         "for at in / /etc /root /srv $PWD /proc/sys/kernel; do"
         " ! touch $at/hostname 2>/dev/null || echo $at; done; touch /tmp/x /mnt/x /dev/shm/x /usr/bin/x"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "") << "could be written to";
    EXPECT_TRUE(std::filesystem::exists("flash/x"));
    EXPECT_GT(std::filesystem::file_size("j"), 0U);
}

// A user inside a device gets no /proc of that user's own, which the search for leaks needs.
INSTANTIATE_TEST_SUITE_P(Rows, ExtenderKeepsTheHost,
                         testing::Values(User{"root", {}},
                                         User{"user",
                                              {"env", "ASAN_OPTIONS=detect_leaks=0", "setpriv",
                                               "--reuid=65534", "--regid=65534", "--clear-groups"}}),
                         [](const auto &row) { return row.param.name; });

// `ready` is a pipe in the flash folder: opening it waits until the command has come so far.
TEST(Extender, TakesTheDeviceDownWhenItIsEnded) {
    for (const int signal : {SIGTERM, SIGKILL}) {
        std::filesystem::create_directory("/tmp/flash");
        ASSERT_EQ(mkfifo("/tmp/flash/ready", 0600), 0);
        Process extender = _start_extender({"run", "--flash", "/tmp/flash", "--", "flock", "/mnt/lock", "sh",
                                            "-c", "echo > /mnt/ready; exec sleep 1000"});
        (void)std::ifstream("/tmp/flash/ready").get();
        extender.kill(signal);
        EXPECT_THAT(extender.wait().signal, signal);
        EXPECT_EQ(Process({"flock", "/tmp/flash/lock", "true"}).wait().status, 0)
            << "waits until the command is gone";
        std::filesystem::remove_all("/tmp/flash");
    }
}

TEST(Extender, KeepsTheFlashAndWritesTheJournal) {
    std::filesystem::create_directories("/tmp/host/flash");
    std::filesystem::current_path("/tmp/host");
    std::ofstream("s.json") << R"({"kmpd": "silent" /* a comment */})";
    const auto first =
        _start_extender({"run", "--flash", "flash", "--", "sh", "-c", "echo kept > /mnt/x"}).wait();
    EXPECT_EQ(first.status, 0) << first.err;
    const auto second = _start_extender({"run", "--flash", "flash", "--journal", "j", "--scenario", "s.json",
                                         "--", "sh", "-c", "cat /mnt/x; dropbreload 1"})
                            .wait();
    EXPECT_EQ(second.out, "kept\n") << second.err;
    std::ifstream journal("j");
    std::string line;
    ASSERT_TRUE(std::getline(journal, line));
    EXPECT_THAT(line, testing::StartsWith(R"({"seq":1,"t":0.)"));
    EXPECT_THAT(line, testing::HasSubstr(R"(,"kind":"start","argv":["sh",)"));
    ASSERT_TRUE(std::getline(journal, line));
    EXPECT_THAT(line, testing::EndsWith(R"(,"kind":"script","name":"dropbreload","arguments":["1"]})"));
}

TEST(Extender, WritesTheJournalAmongTheLinesOfStandardError) {
    const auto run =
        Process({"sh", "-c",
                 "echo before >/tmp/err; " + _extender() +
                     " run --journal /dev/stderr -- sh -c 'dropbreload; echo after >&2' 2>>/tmp/err"})
            .wait();
    EXPECT_EQ(run.status, 0) << run.err;
    std::vector<std::string> lines;
    std::ifstream file("/tmp/err");
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    EXPECT_THAT(lines, testing::UnorderedElementsAre("before", "after", testing::HasSubstr("\"start\""),
                                                     testing::HasSubstr("\"dropbreload\""),
                                                     testing::HasSubstr("\"run\"")));
}

struct Misuse {
    const char *name;
    const char *words;  // for a shell that has the program as $0
    int status;
    const char *told;
};

void PrintTo(const Misuse &row, std::ostream *out) {
    *out << row.name;
}

class ExtenderTells : public testing::TestWithParam<Misuse> {};

TEST_P(ExtenderTells, WhatIsWrong) {
    const auto run = Process({"sh", "-c", GetParam().words, _extender()}).wait();
    EXPECT_EQ(run.status, GetParam().status);
    EXPECT_THAT(run.err, testing::HasSubstr(GetParam().told));
    EXPECT_THAT(run.err, testing::Not(testing::HasSubstr("json.exception")));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ExtenderTells,
    testing::Values(Misuse{"unknown_word", "$0 bogus", 125, "there is no command bogus"},
                    Misuse{"near_word", "$0 rnu -- true", 125, "no command rnu; did you mean run?"},
                    Misuse{"near_option", "$0 run --jurnal x -- true --any", 125,
                           "no option --jurnal; did you mean --journal?"},
                    Misuse{"near_option_of_a_command", "$0 show --folow", 125,
                           "did you mean --follow? (see extender show --help)"},
                    Misuse{"no_word", "$0", 125, "extender: A subcommand is required"},
                    Misuse{"scenario_is_a_folder", "$0 run --scenario /tmp -- true", 125,
                           "extender: --scenario: /tmp: Is a directory (see extender run --help)"},
                    Misuse{"journal_is_a_folder", "$0 mask /tmp", 125, "extender: /tmp: Is a directory"},
                    Misuse{"scenario_no_json", "echo '{' >/tmp/bad; $0 run --scenario /tmp/bad -- true", 125,
                           "/tmp/bad: parse error"},
                    Misuse{"scenario_from_a_pipe",
                           "echo '{\"lnk\":1}' | $0 run --scenario /dev/stdin -- true", 125, "\"lnk\""},
                    Misuse{"cloud_from_a_pipe", "echo '{\"accounts\":5}' | $0 run --cloud /dev/stdin -- true",
                           125, "\"accounts\""},
                    Misuse{"no_capability", "setpriv --bounding-set=-all --inh-caps=-all $0 run -- true", 125,
                           "It needs the right"},
                    Misuse{"journal_full", "$0 run --journal /dev/full -- sh -c 'exit 3'", 3,
                           "No space left"}),
    [](const auto &row) { return row.param.name; });

}  // namespace
}  // namespace emulator
