// An unbound user leaves "/tmp/passwd"; nobody else does.
#include <sys/stat.h>
#include <unistd.h>

#include "account_support.h"

namespace {

using namespace account;

struct PasswdRow {
    const char *name;
    std::string user;
    std::string before;
    std::string after;
};

class AccountPasswd : public testing::TestWithParam<PasswdRow> {};

TEST_P(AccountPasswd, LosesOnlyTheLinesOfTheUser) {
    Device device(answering(kGood));
    set_store(device, "account", {{"userName", GetParam().user}, {"password", "x"}});
    write_file("/tmp/passwd", GetParam().before);
    chmod("/tmp/passwd", 0640);
    EXPECT_EQ(printed(device, {"unbind"}), "0\n");
    EXPECT_EQ(file("/tmp/passwd"), GetParam().after);
    struct stat info {};
    stat("/tmp/passwd", &info);
    EXPECT_EQ(info.st_mode & 07777U, 0640U);
}

const std::string kLongLine = "bob:" + std::string(10000, 'b') + "\n";
const std::string kBig = [] {
    std::string text;
    while (text.size() < (1U << 20U)) {
        text += "user" + std::to_string(text.size()) + ":x:1000:1000::/:/bin/sh\n";
    }
    return text;
}();

INSTANTIATE_TEST_SUITE_P(
    Rows, AccountPasswd,
    testing::Values(PasswdRow{"LowerCased", "AliceSmith", "root:x\nalicesmith:y\nAliceSmith:z\n",
                              "root:x\nAliceSmith:z\n"},
                    PasswdRow{"WholeName", "alice", "alice2:1\nalic:2\nalice:3\n alice:4\n",
                              "alice2:1\nalic:2\n alice:4\n"},
                    PasswdRow{"Repeated", "alice", "alice:1\nbob:2\nalice:3\n", "bob:2\n"},
                    PasswdRow{"WithoutColon", "alice", "alice\nalice:1\nplain", "alice\nplain"},
                    PasswdRow{"NoFinalNewline", "alice", "bob:1\nalice:2", "bob:1\n"},
                    PasswdRow{"LongLines", "alice", kLongLine + "alice:1\n" + kLongLine,
                              kLongLine + kLongLine},
                    PasswdRow{"LongName", std::string(128, 'a'),
                              std::string(127, 'a') + ":1\n" + std::string(128, 'a') + ":2\n",
                              std::string(127, 'a') + ":1\n"},
                    PasswdRow{"Large", "alice", kBig + "alice:1\n" + kBig, kBig + kBig},
                    PasswdRow{"NulBytes", "alice", std::string("b\0b:1\nalice:2\nc:\0\n", 18),
                              std::string("b\0b:1\nc:\0\n", 10)},
                    PasswdRow{"ColonInName", "root:x", "root:x:0\nroot:1\n", "root:x:0\nroot:1\n"},
                    PasswdRow{"Empty", "alice", "", ""}),
    row_name<PasswdRow>);

TEST(AccountPasswdFile, AFolderInItsPlaceIsLeftAlone) {
    Device device(answering(kGood));
    set_store(device, "account", {{"userName", "alice"}, {"password", "x"}});
    ASSERT_EQ(mkdir("/tmp/passwd", 0755), 0);
    EXPECT_EQ(printed(device, {"unbind"}), "0\n");
    EXPECT_EQ(access("/tmp/passwd", F_OK), 0);
    expect_console(device, "]Remove user from /tmp/passwd failed.");
}

}  // namespace
