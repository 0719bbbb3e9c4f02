#include "cloud_api_wrap.h"

#include <gmock/gmock.h>

#include "cloud_api.h"
#include "cloud_owner.h"
#include "cloud_util.h"
#include "program.h"

namespace {

using namespace program;

/// A device whose broker the library in this process has not met before.
struct Device : program::Device {
    using program::Device::Device;
    ~Device() { cloud_api_destroy(); }
};

TEST(CloudApiWrap, NullRequestReachesNobody) {
    Device device;
    char *text = nullptr;
    EXPECT_EQ(cloud_wrap_send_request_sync_noaccount(nullptr, 1000, 1, &text), -1000);
    EXPECT_TRUE(device.journal().of_kind("connect").empty());
}

TEST(CloudApiWrap, AttemptsWithoutAccountCountNominalTime) {
    struct Row {
        int32_t timeout;
        size_t submissions, polls;
    };
    for (const Row &row : {Row{1000, 3, 9}, Row{999, 3, 6}, Row{0, 3, 3}, Row{-1, 3, 0}}) {
        Device device(json{{"pending", -1}});
        char *text = nullptr;
        EXPECT_EQ(cloud_wrap_send_request_sync(R"({"method":"m"})", row.timeout, 3, &text), -3002);
        EXPECT_EQ(requests(device).size(), row.submissions);
        EXPECT_EQ(device.journal().select(has({{"from", "client"}, {"type", emulator::kPoll}})).size(),
                  row.polls);
        EXPECT_THAT(sent(device)[1],
                    testing::HasSubstr(row.timeout < 0 ? R"("timeout":5000,"flag":3)" : R"(,"flag":3)"));
    }
}

TEST(CloudApiWrap, AccountPathHasAWayOfItsOwn) {
    Device device;
    char *text = nullptr;
    ASSERT_EQ(cloud_wrap_send_request_sync_account(R"({"method":"getWeather"})", 1000, 1, &text), 0);
    const HeapText owned(text);
    EXPECT_EQ(json::parse(text).at("error_code"), 0);
    EXPECT_EQ(sent(device)[0].substr(0, 3), "64 ");
    EXPECT_EQ(cloud_wrap_set_connection_mode(1), 0);
    EXPECT_EQ(cloud_wrap_set_connection_mode(0), 0);
    EXPECT_EQ(cloud_wrap_set_connection_mode(2), 0);
    const std::vector<std::string> events{R"(80 {"event":10})", R"(80 {"event":11})", R"(80 {"event":11})"};
    const std::vector<std::string> all = sent(device);
    EXPECT_EQ(std::vector<std::string>(all.begin() + 1, all.end()), events);
}

TEST(CloudApiWrap, LinkTestWantsTheCloudsOwnRefusal) {
    struct Row {
        const char *answer;
        int result;
        const char *message;
    };
    for (const Row &row :
         {Row{R"({"error_code":-20103})", 1, nullptr}, Row{R"({"error_code":"-20103"})", 1, nullptr},
          Row{R"({"error_code":0})", 0, nullptr}, Row{R"({"msg":"x"})", 0, "errCode is null ptr."},
          Row{"x", 0, "get jsonrpc obj failed."}}) {
        Device device(answering(row.answer));
        EXPECT_EQ(testCloudSrvConnection(1), row.result) << row.answer;
        EXPECT_EQ(requests(device), std::vector<std::string>{R"({"method":"myTestConnection"})"});
        if (row.message != nullptr) {
            expect_console(device, row.message);
        }
    }
    Device device(json::parse(R"({"rules":[{"on":"request","do":{"errorcode":-4}}]})"));
    EXPECT_EQ(testCloudSrvConnection(1), 0);
}

size_t count(Device &device, const std::string &line) {
    cloud_util_printf("end of the check");
    expect_console(device, "end of the check");
    return device.journal().select(has({{"kind", "console"}, {"text", line}})).size();
}

TEST(CloudApiWrap, LinkThatCarriesIsLeftAlone) {
    Device device;
    EXPECT_EQ(cloud_checkSslPath(3, 5), 2);
    EXPECT_EQ(count(device, "ssl path is OK."), 1U);
    EXPECT_TRUE(device.journal().of_kind("event").empty());
}

TEST(CloudApiWrap, LinkThatDoesNotCarryIsRebuilt) {
    Device device(answering(R"({"error_code":0})"));
    EXPECT_EQ(cloud_checkSslPath(2, 5), 1);
    EXPECT_EQ(count(device, "link status is ok, while ssl path is bad, try to reconnect."), 1U);
    EXPECT_EQ(device.journal().of_kind("event").at(0).at("event"), 2);
}

TEST(CloudApiWrap, LinkThatIsDownIsWaitedFor) {
    struct Row {
        const char *scenario;
        int32_t wait;
        int result;
        size_t waits;
    };
    for (const Row &row : {Row{R"({"link":1,"reconnect_polls":2})", 5, 2, 2},
                           Row{R"({"link":1,"reconnect_polls":99})", 3, 1, 3}, Row{R"({"link":1})", 0, 1, 0},
                           Row{R"({"link":1,"rules":[{"on":80,"do":{"errorcode":-5}}]})", 5, 1, 0}}) {
        Device device(json::parse(row.scenario));
        EXPECT_EQ(cloud_checkSslPath(3, row.wait), row.result) << row.scenario;
        EXPECT_EQ(count(device, "waiting for reconnect..."), row.waits) << row.scenario;
        EXPECT_EQ(sent(device)[1], R"(80 {"event":3})");
    }
}

}  // namespace
