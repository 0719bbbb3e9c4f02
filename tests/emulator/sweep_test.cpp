// extender sweep, run inside this device: it sees what commands that are wrong on purpose do.
#include <gmock/gmock.h>

#include <filesystem>
#include <string>
#include <vector>

#include "journal.h"
#include "process.h"

namespace emulator {
namespace {

struct Swept {
    const char *name;
    std::vector<std::string> command;
    const char *point;
    std::string fell;  // judgements, or "" for none
};

void PrintTo(const Swept &row, std::ostream *out) {
    *out << row.name;
}

// What it does when a folder stands where its file is wanted is the fault that is to be seen.
std::vector<std::string> _script(const std::string &then) {
    return {"sh", "-c", "[ -f /tmp/cloud.info ] || " + then + "; echo 0"};
}

class Sweep : public testing::TestWithParam<Swept> {};

TEST_P(Sweep, SeesExactlyWhatIsWrong) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's allocator and the library of faults do not go together";
#endif
    std::vector<std::string> words{std::filesystem::read_symlink("/proc/self/exe").parent_path() / "extender",
                                   "sweep",
                                   "--json",
                                   "--only",
                                   GetParam().point,
                                   "--"};
    words.insert(words.end(), GetParam().command.begin(), GetParam().command.end());
    const auto run = Process(words).wait();
    const json answer = json::parse(run.out, nullptr, false);
    ASSERT_TRUE(answer.is_object()) << run.out << run.err;
    std::string fell;
    for (const json &fallen : answer.at("fallen")) {
        for (const json &fall : fallen.at("falls")) {
            fell += (fell.empty() ? "" : " ") + fall.at("judgement").get<std::string>();
        }
    }
    EXPECT_EQ(fell, GetParam().fell) << run.out;
    EXPECT_EQ(run.status, fell.empty() ? 0 : 1);
    const json &faults = answer.at("commands").at(0).at("faults");
    EXPECT_EQ(faults.begin().value().at("runs"), 1);
    EXPECT_EQ(faults.begin().value().at("missed"), 0) << "the fault was not met";
}

constexpr const char *kFolder = "files:/tmp/cloud.info:folder";
const std::vector<std::string> kStatus{"cloud_msg", "getBindStatus"};

INSTANTIATE_TEST_SUITE_P(
    Rows, Sweep,
    testing::Values(Swept{"NothingWrong", _script("true"), kFolder, ""},
                    Swept{"PrintsNothing", _script("exit 0"), kFolder, "printed"},
                    Swept{"Fails", _script("{ echo 0; exit 3; }"), kFolder, "status"},
                    Swept{"IsEndedByASignal", _script("{ echo 0; kill -9 $$; }"), kFolder, "signal"},
                    Swept{"LeavesAFile", _script("touch /tmp/left"), kFolder, "temporary"},
                    Swept{"LeavesALockFile", _script("touch /tmp/left.lock"), kFolder, "lock"},
                    Swept{"LeavesAProcess", _script("{ sleep 1000 & }"), kFolder, "process"},
                    Swept{"WritesToAnothersFile", _script("echo >>/tmp/.others_file"), kFolder, "others"},
                    Swept{"LosesAnothersLine", _script("echo >/tmp/passwd"), kFolder, "others"},
                    Swept{"SpoilsTheStore", _script("cloud_store set device-status '{\"bind_status\":1}'"),
                          kFolder, "state next"},
                    Swept{
                        "TheProgramWithoutMemory", {"cloud_msg", "getLogicStatus"}, "memory:any:1:ever", ""},
                    Swept{"TheProgramWithoutConsole", kStatus, "syscalls:openat:1:EMFILE", ""},
                    Swept{"TheProgramKilled", kStatus, "kills:openat:1:kill", ""}),
    [](const auto &row) { return std::string(row.param.name); });

}  // namespace
}  // namespace emulator
