// The command line as the device's programs use it: words, prefixes, texts, debug switches.
#include <sys/stat.h>
#include <unistd.h>

#include "program.h"

namespace {

using namespace program;

struct Line {
    const char *name;
    std::vector<std::string> arguments;
    std::string printed;
};

const std::string kUsage =
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
    "\t cloud_msg tmp_bind <email> <pwd>           Bind owner account, email and pwd must be base64 encoded, "
    "for Corvid\r\n"
    "\t cloud_msg tmp_unbind                       Unbind owner account for Corvid\r\n"
    "\t cloud_msg login <email> <pwd>              Login owner account, pwd must be RSA encrypt\r\n"
    "\t cloud_msg passthrough <method> <request>   Kmpd passthrough request to cloud, request must be base64 "
    "encoded\r\n"
    "\t cloud_msg getLogicStatus                   Get current connection mode, 0-short connection 1-long "
    "connection\r\n"
    "\t cloud_msg setLogicStatus                   Set current connection mode\r\n"
    "\t cloud_msg getBindStatus                    Get device bind account or not, 0-unbind, 1-bind\r\n"
    "0\n";

class CommandLine : public testing::TestWithParam<Line> {};

TEST_P(CommandLine, Prints) {
    Device device(json{{"logic", 5}});
    EXPECT_EQ(printed(device, GetParam().arguments), GetParam().printed) << device.journal().text();
}

INSTANTIATE_TEST_SUITE_P(
    Words, CommandLine,
    testing::Values(Line{"Nothing", {}, "invaild arguments! redo it\n0\n"},
                    Line{"FourArguments", {"bind", "a", "b", "c"}, "invaild arguments! redo it\n0\n"},
                    Line{"UnknownAlone", {"alias"}, "Error, 2 invaild arguments! redo it\n0\n"},
                    Line{"UnknownWithOne", {"bind", "a"}, "Error, 3 invalid arguments! redo it\n0\n"},
                    Line{"UnknownWithTwo", {"unbind", "a", "b"}, "Error, 4 invalid arguments! redo it\n0\n"},
                    Line{"Empty", {""}, "Error, 2 invaild arguments! redo it\n0\n"},
                    Line{"OtherCase", {"getbindstatus"}, "Error, 2 invaild arguments! redo it\n0\n"},
                    Line{"ShortenedWord", {"getBindStatu"}, "Error, 2 invaild arguments! redo it\n0\n"},
                    Line{"LongerWord", {"getBindStatusNow"}, "0\n"}, Line{"Help", {"-help"}, kUsage},
                    Line{"CapitalHelp", {"-H"}, kUsage}, Line{"LogicStatus", {"getLogicStatus"}, "5\n"}),
    row_name<Line>);

TEST(CommandLineRules, RemoveUserIsFoundByFiveLetters) {
    Device device;
    EXPECT_EQ(printed(device, {"rmusex", "a", "b"}), "-20303\n");  // the cloud's "not bound"
    ASSERT_EQ(requests(device).size(), 1U);
    EXPECT_NE(requests(device)[0].find("\"method\":\"removeDeviceUser\""), std::string::npos);
    EXPECT_EQ(printed(device, {"rmus", "a", "b"}), "Error, 4 invalid arguments! redo it\n0\n");
}

// Standard output carries results only: switches left by an earlier session go, unless kept on purpose.
TEST(CommandLineRules, StaleDebugSwitchesAreCleared) {
    Device device;
    for (int n = 0; n <= 5; ++n) {
        write_file("/tmp/log." + std::to_string(n), "");
    }
    EXPECT_EQ(printed(device, {"getLogicStatus"}), "0\n");
    for (int n = 0; n <= 4; ++n) {
        EXPECT_NE(access(("/tmp/log." + std::to_string(n)).c_str(), F_OK), 0) << n;
    }
    EXPECT_EQ(access("/tmp/log.5", F_OK), 0);

    write_file("/tmp/log.1", "");
    write_file("/tmp/cloud.debug", "");
    const std::string out = printed(device, {"getLogicStatus"});
    EXPECT_EQ(access("/tmp/log.1", F_OK), 0);
    EXPECT_NE(out.find("| error | pid:"), std::string::npos) << out;
    EXPECT_NE(out.find("| - cloud-sdk version: , build_time:20171220_114854\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("debug"), std::string::npos) << out;
    EXPECT_EQ(out.substr(out.size() - 2), "0\n");
}

// With standard output closed, the broker's socket must not become it.
TEST(CommandLineRules, ClosedOutputDoesNotReachTheBroker) {
    const std::vector<std::string> command = emulator::cloud_msg_command();
    if (command.size() > 1) {
        GTEST_SKIP() << "what runs the program needs a standard output of its own";
    }
    Device device;
    write_file("/tmp/cloud.debug", "");
    write_file("/tmp/log.4", "");
    EXPECT_EQ(device.run({"sh", "-c", command.front() + " online >&- 2>&-"}).status, 0);
    EXPECT_EQ(requests(device), std::vector<std::string>{R"({"method":"a"})"});
    EXPECT_TRUE(device.journal().of_kind("bad_message").empty());
    EXPECT_EQ(file("/tmp/cloud.error"), "0\n");
}

// The reader of standard output may leave early: the program ends as usual, and its log does not end the
// connection to the broker.
TEST(CommandLineRules, AReaderThatLeftIsNoFault) {
    const std::vector<std::string> command = emulator::cloud_msg_command();
    if (command.size() > 1) {
        GTEST_SKIP() << "what runs the program writes there itself";
    }
    Device device;
    write_file("/tmp/cloud.debug", "");
    write_file("/tmp/log.4", "");
    for (const char *word : {"-h", "online", "getLogicStatus"}) {
        const auto run = device.run(
            {"bash", "-c", "exec 3> >(exit 0); wait $!; exec " + command.front() + " " + word + " >&3"});
        EXPECT_EQ(run.status, 0) << word << run.err;
        EXPECT_EQ(run.signal, 0) << word;
        EXPECT_EQ(run.err, "") << word;
    }
    EXPECT_EQ(file("/tmp/cloud.error"), "0\n");
    EXPECT_EQ(requests(device).size(), 1U);
}

// The journal keeps no empty lines, so the bytes are read here: each message as it is, and one newline.
TEST(CommandLineRules, TheConsoleGetsEveryByte) {
    Device device;
    write_file("/tmp/cloud_dl_img.lock", "");
    std::vector<std::string> words{
        "bash", "-c",
        "rm /dev/console && mkfifo /dev/console && exec 3<>/dev/console && \"$@\" download; "
        "dd if=/dev/console iflag=nonblock bs=64k 2>/dev/null | sed -E "
        "'s/^\\[[^]]*]\\[(.*):[0-9]+]/[DATE][\\1:LINE]/'",
        "bash"};
    const std::vector<std::string> command = emulator::cloud_msg_command();
    words.insert(words.end(), command.begin(), command.end());
    EXPECT_EQ(device.run(words).out,
              "0\n"
              "[DATE][src/cloud_localMsgTask.cpp:_file_lock:LINE] \n"
              "Download/upgrade image lock, please wait.\n\n\n"
              "[DATE][src/cloud_localMsgTask.cpp:cloud_localMsgTask:LINE] \n"
              "download image from cloud in progress\n\n\n"
              "[DATE][src/cloud_localMsgTask.cpp:cloud_localMsgTask:LINE] \n"
              "cloud_localMsgTask end\n\n\n\n");
}

// A lock says that another process works on the image: nothing is done, and the lock stays.
TEST(CommandLineRules, FirmwareCommandsRespectTheirLocks) {
    struct Row {
        const char *word, *lock, *message;
    };
    for (const Row &row : {Row{"download", "/tmp/cloud_dl_img.lock", "download image from cloud in progress"},
                           Row{"update", "/tmp/cloud_up_img.lock", "upgrade image from cloud in progress"}}) {
        Device device;
        write_file(row.lock, "");
        EXPECT_EQ(printed(device, {row.word}), "0\n");
        EXPECT_EQ(access(row.lock, F_OK), 0);
        expect_console(device, "Download/upgrade image lock, please wait.");
        expect_console(device, row.message);
        EXPECT_TRUE(sent(device).empty());
        EXPECT_EQ(file("/tmp/cloud.info"), "absent");
    }
}

}  // namespace
