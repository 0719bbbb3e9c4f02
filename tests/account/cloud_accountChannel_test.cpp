// The datagrams to the management daemon.
#include <sys/stat.h>

#include "account_support.h"

namespace {

using namespace account;

struct KickoffRow {
    const char *name;
    const char *daemon;
    bool arrives;
};

class AccountKickoff : public testing::TestWithParam<KickoffRow> {};

TEST_P(AccountKickoff, SendsItsThreeDatagramsWhateverTheDaemonDoes) {
    Device device(json{{"kmpd", GetParam().daemon}});
    write_file("/tmp/cloud_msg_unix", "left by a run that was killed");
    EXPECT_EQ(printed(device, {"kickoff"}), "0\n");
    EXPECT_EQ(file("/tmp/cloud_msg_unix"), "absent");
    if (!GetParam().arrives) {
        expect_console(device, "[error][_send_unix_request:");
        expect_console(device, "]Send request failed. No such file or directory");
        return;
    }
    const auto isDatagram = has({{"kind", "datagram"}});
    device.journal().wait_for(
        [&, seen = 0](const json &record) mutable { return isDatagram(record) && ++seen == 3; });
    const std::vector<json> datagrams = device.journal().of_kind("datagram");
    ASSERT_EQ(datagrams.size(), 3U);
    const int lengths[] = {120, 128, 160};
    const char *payloads[] = {"", "AQABAA==", "AQACAAEABQAACAAAAAAAAAKejGoBAQYAAAAAAA=="};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(datagrams[i].at("size"), 10360);
        EXPECT_EQ(datagrams[i].at("length"), lengths[i]);
        EXPECT_EQ(datagrams[i].at("payload"), payloads[i]);
        EXPECT_EQ(datagrams[i].at("faults"), json::array()) << datagrams[i];
    }
}

INSTANTIATE_TEST_SUITE_P(Daemon, AccountKickoff,
                         testing::Values(KickoffRow{"Answers", "answer", true},
                                         KickoffRow{"IsSilent", "silent", true},
                                         KickoffRow{"AnswersOversize", "oversize", true},
                                         KickoffRow{"IsAbsent", "absent", false}),
                         row_name<KickoffRow>);

TEST(AccountKickoffSocket, MustBeHad) {
    Device device;
    ASSERT_EQ(mkdir("/tmp/cloud_msg_unix", 0755), 0);
    EXPECT_EQ(printed(device, {"kickoff"}), "-1\n");
    expect_console(device, "]failed to bind: Address");  // the rest is the C library's own wording
}

}  // namespace
