// A running device, joined from other processes; and its journal, shown.
#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "await.h"
#include "emulator_support.h"
#include "fault.h"
#include "process.h"
#include "progress.h"

namespace emulator {
namespace {

using testing::HasSubstr;

Process _start(std::vector<std::string> words) {
    words.insert(words.begin(), std::filesystem::read_symlink("/proc/self/exe").parent_path() / "extender");
    return Process(std::move(words));
}

TEST(JoinedDevice, RunsCommandsTakesFaultsAndShowsItsJournal) {
    // The names of all devices of this machine are in one space.
    const std::string name = "join_test_" + std::filesystem::read_symlink("/proc/self/ns/mnt").string();
    Process device = _start({"run", "--name", name, "--", "sleep", "1000"});
    const auto join = [&](std::vector<std::string> words) {
        words.insert(words.begin() + 1, {"--device", name});
        return _start(std::move(words)).wait();
    };
    ASSERT_TRUE(test::await([&] { return join({"state"}).status == 0; })) << device.err();

    Process follower = _start({"show", "--follow", "--device", name});
    const auto run = join({"exec", "--", "sh", "-c", "echo $EXTENDER_DEVICE; exit 7"});
    EXPECT_EQ(run.out, name + "\n") << run.err;
    EXPECT_EQ(run.status, 7);

    EXPECT_EQ(join({"inject", "the next answer is -20580"}).status, 0);
    const std::vector<std::string> bind{"exec", "--", "sh", "-c",
                                        "cloud_msg bind alice@example.com \"$(cloud_rsa encrypt Secret-1)\""};
    EXPECT_EQ(join(bind).out, "-20580\n");
    EXPECT_EQ(join(bind).out, "0\n") << "it was the next one alone";
    const json state = json::parse(join({"state"}).out);
    EXPECT_THAT(state, holds({{"bound", true}, {"account", "alice@example.com"}, {"mode", 1}, {"link", 2}}));

    EXPECT_EQ(join({"inject", "broker", "stop"}).status, 0);
    EXPECT_NE(join({"exec", "--", "cloud_msg", "online"}).out, "0\n");
    EXPECT_EQ(join({"inject", "clear"}).status, 0);
    EXPECT_EQ(join({"exec", "--", "cloud_msg", "online"}).out, "0\n");
    EXPECT_EQ(join({"inject", "full /tmp"}).status, 0);
    EXPECT_EQ(join({"exec", "--", "sh", "-c", "head -c 9999 /dev/zero >/tmp/x"}).status, 1);
    EXPECT_EQ(join({"inject", R"({"on": "link", "nth": 1, "do": {"silense": true}})"}).status, 125);

    EXPECT_THAT(join({"show"}).out, testing::AllOf(HasSubstr("! injected: the next answer is -20580"),
                                                   HasSubstr("bindDevice"), HasSubstr("Scripted")));
    device.kill(SIGTERM);
    device.wait();
    EXPECT_THAT(follower.wait().out, HasSubstr("! injected: full /tmp"));
    EXPECT_THAT(join({"state"}).err, HasSubstr("no device of yours has the name"));
}

TEST(JoinedDevice, KeepsWhatWasInjectedAsAScenario) {
    const std::string life =
        "cloud_msg online; extender inject answer -20580; extender inject image server lies 5;"
        "extender inject link up; cloud_msg online >/dev/null; extender state --scenario";
    const auto run = _start({"run", "--", "sh", "-c", life}).wait();
    const json kept = json::parse(run.out.substr(run.out.find("{\n  \"rules\"")));
    EXPECT_THAT(kept.at("rules").at(0), holds({{"on", "request"}, {"nth", 2}})) << "the first was before";
    EXPECT_EQ(kept.at("image").at("rules").size(), 2U) << "it stands before the slow one";
    EXPECT_THAT(kept.at("description"), HasSubstr(R"({"link":2})"));
}

TEST(Fault, IsNamedInWords) {
    for (const auto &[words, action] : {
             std::pair{"the next answer is -20580",
                       R"({"on":"request","nth":1,"do":{"cloud_error":-20580}})"},
             {"The broker restarts.", R"({"broker":"restart"})"},
             {"link down", R"({"link":1})"},
             {"cut the download", R"({"download":"cut"})"},
             {"the image server stalls", R"({"download":"stall"})"},
             {"full /tmp", R"({"tmp_free":0})"},
             {"/tmp full 4096", R"({"tmp_free":4096})"},
             {R"({"logic": 1})", R"({"logic":1})"},
         }) {
        EXPECT_EQ(parse_fault(words), json::parse(action)) << words;
    }
    EXPECT_EQ(parse_fault("cut the download at 40 %").at("do").at("drop_after"), "40%");
    for (const char *words : {"answer", "answer 1 2", "answer 5%", "tmp", "", "{", R"({"link":1,"logic":1})",
                              R"({"broker":"pause"})", R"({"lnk":1})"}) {
        EXPECT_NE(refusal([&] { (void)parse_fault(words); }), "taken") << words;
    }
}

TEST(ProgressLine, FitsItsColumnsAndEndsAt100) {
    EXPECT_EQ(progress_line(1, 50, 30), "   [####....] 50 % downloading");
    for (const size_t columns : {0U, 5U, 20U, 27U, 28U, 40U, 80U, 300U}) {
        const std::string line = progress_line(1, 2147483647, columns);
        EXPECT_LE(line.size(), columns);
        EXPECT_THAT(line, testing::Not(HasSubstr("2147")));
    }
    EXPECT_THAT(progress_line(2, 107, 80), testing::EndsWith("###] 100 % downloaded"));
    EXPECT_EQ(progress_line(99, 5, 80), "");
}

TEST(ExtenderProgress, NamesALockThatWasLeft) {
    std::ofstream("/tmp/cloud.info") << R"({"fw_status":1,"dwProgress":37})";
    std::ofstream("/tmp/cloud_dl_img.lock").flush();
    const auto run = _start({"progress"}).wait();
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.err, HasSubstr("rm /tmp/cloud_dl_img.lock"));
}

constexpr const char *kJournal = R"({"seq":1,"t":0,"kind":"start","argv":["cloud_msg","online"]}
{"seq":2,"t":0.01,"kind":"connect","connection":1}
{"seq":3,"t":0.02,"kind":"message","connection":1,"from":"client","type":64,"name":"submit","body":"{\"request\":\"{\\\"method\\\":\\\"bindDevice\\\"}\"}"}
{"seq":4,"t":0.03,"kind":"message","connection":1,"from":"broker","type":65,"name":"submitReply","body":"{\"errorcode\":0,\"id\":7}"}
{"seq":5,"t":0.04,"kind":"message","connection":1,"from":"client","type":66,"name":"poll","body":"{\"id\":7}"}
{"seq":6,"t":0.05,"kind":"message","connection":1,"from":"client","type":66,"name":"poll","body":"{\"id\":7}"}
{"seq":7,"t":1.5,"kind":"no_reply","connection":1,"from":"broker","type":67,"name":"answer","body":"{\"id\":7}","scripted":{"silence":true}}
{"seq":8,"t":1.6,"kind":"console","text":"a <b>\u001b[2J line that is longer than the terminal"}
no record
)";

TEST(ExtenderShow, DrawsLanesAndMarksFaults) {
    std::ofstream("/tmp/j") << kJournal;
    const std::string extender = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "extender";
    const auto run = Process({"env", "LC_ALL=C", "COLUMNS=72", extender, "show", "/tmp/j"}).wait();
    EXPECT_EQ(run.out,
              "             program   cloud     images    console\n"
              "                  broker    kmpd      scripts\n"
              "   0.000000  $ cloud_msg online\n"
              "   0.010000  |--->|    |    |    |    |    |  connection 1 opens\n"
              "   0.020000  |--->|    |    |    |    |    |  submit bindDevice\n"
              "   0.020000  |    |...>|    |    |    |    |  bindDevice\n"
              "   0.030000  |<---|    |    |    |    |    |  submitReply bindDevice ...\n"
              "   0.040000  |--->|    |    |    |    |    |  poll bindDevice id 7\n"
              "             (again, 1 line)\n"
              "   1.500000  |x...|    |    |    |    |    |  ! answer bindDevice id ...\n"
              "   1.600000  |---------------------------->|  a <b> [2J line that is ...\n");
    EXPECT_THAT(run.err, HasSubstr("1 line was no record"));
    const auto nowhere = Process({extender, "show", "/tmp/j", "--html", "/tmp/nowhere/page"}).wait();
    EXPECT_THAT(nowhere.err, HasSubstr("/tmp/nowhere/page: No such file or directory"));
    const auto page = Process({extender, "show", "/tmp/j", "--html", "-"}).wait();
    EXPECT_THAT(page.out, testing::AllOf(HasSubstr("a &lt;b&gt; [2J"), HasSubstr("000000  a1 b2 00 40 00 00"),
                                         HasSubstr("&quot;method&quot;: &quot;bindDevice&quot;")));
    EXPECT_THAT(page.out,
                testing::Not(testing::AnyOf(HasSubstr("<b>"), HasSubstr("\x1b"), HasSubstr("<script"))));
}

}  // namespace
}  // namespace emulator
