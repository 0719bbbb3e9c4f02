// The instance: every way in which the start with the broker can fail, teardown, signal of a broken
// connection, dump.
#include "cloud_api.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include "cloud_callback.h"
#include "cloud_mod_support.h"
#include "cloud_register.h"

using testing::IsSupersetOf;
using testing::MatchesRegex;

namespace {

constexpr const char *kBanner = "cloud-sdk version: , build_time:20171220_114854";

std::optional<std::string> _status_is_2(const Received & /*message*/) {
    return frame(97, R"({"errorcode":0,"status":2})");
}

struct Greeting {
    const char *name;
    std::string bytes;
    const char *logged;
    friend void PrintTo(const Greeting &row, std::ostream *out) { *out << row.name; }
};

class ApiInit : public testing::TestWithParam<Greeting> {};

TEST_P(ApiInit, FailsAndLeavesNothing) {
    Broker broker(_status_is_2, {GetParam().bytes});
    const int open = open_descriptors();
    Log log(1);
    EXPECT_EQ(cloud_api_init(), nullptr);
    EXPECT_EQ(log.of("cloud_api"), kBanner + std::string(" / ") + GetParam().logged);
    broker.await_closed(0);
    EXPECT_EQ(open_descriptors(), open);
    EXPECT_EQ(kxcc_get_link_status(), KXCC_ERROR_SEND);
    EXPECT_EQ(cloudApi, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Case, ApiInit,
    testing::Values(
        Greeting{"HangsUp", "", "ipc recv error"},
        Greeting{"WrongMagic", "\x12\x34" + kAccepted.substr(2), "ipc recv error"},
        Greeting{"WrongType", frame(17, R"({"errorcode":0,"result":0})"), "client receive type not ACCEPT"},
        Greeting{"NoBody", frame(16, ""), "json parse error"},
        Greeting{"NotJson", frame(16, "welcome"), "json parse error"},
        Greeting{"NoErrorcode", frame(16, R"({"result":0})"), "json get object error"},
        Greeting{"TextCode", frame(16, R"({"errorcode":"0","result":0})"), "json get object error"},
        Greeting{"Capitals", frame(16, R"({"ErrorCode":0,"result":0})"), "json get object error"},
        Greeting{"Refused", frame(16, R"({"errorcode":-5})"), "daemon accept not success, errocode:-5"},
        Greeting{"NoResult", frame(16, R"({"errorcode":0})"), "json get object error"},
        Greeting{"Full", frame(16, R"({"errorcode":0,"result":1})"), "daemon accept full"}),
    [](const auto &tested) { return tested.param.name; });

TEST(ApiInit, WithoutBrokerClosesDescriptor0) {
    // Make sure that there is one.
    ASSERT_GE(open("/dev/null", O_RDONLY), 0);
    ASSERT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);
    Log log(4);
    EXPECT_EQ(cloud_api_init(), nullptr);
    EXPECT_EQ(log.of("cloud_api"), kBanner + std::string(" / ipc client init error / api init error"));
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
}

TEST(ApiInit, FailsWithoutMemory) {
    Broker broker(_status_is_2);
    Log log(1);
    with_each_allocation_failing([] {
        cloudApi = cloud_api_init();
        cloud_api_destroy();
    });
    EXPECT_THAT(log.lines(),
                IsSupersetOf({"error cloud_api: malloc api error", "error cloud_api: callback init error"}));
    broker.await_closed(broker.connections() - 1);
}

TEST(Api, StartsOnceAndEndsOnce) {
    Broker broker(_status_is_2);
    Log log(4);
    cloudApi = cloud_api_init();
    EXPECT_EQ(cloud_api_init(), cloudApi);
    cloud_api_destroy();
    EXPECT_EQ(cloudApi, nullptr);
    cloud_api_destroy();
    const std::string banner(kBanner);
    EXPECT_THAT(
        log.of("cloud_api"),
        MatchesRegex(banner + " / api sockfd:[0-9]+ / daemon accept success / api init success / " + banner +
                     " / api already exist / begin destroy cloud api / end destroy cloud api / "
                     "begin destroy cloud api / cloud api already destroyed"));
    broker.await_closed(0);
}

TEST(Api, StartsAndEndsAThousandTimes) {
    Broker broker(_status_is_2);
    int open = 0;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(kxcc_get_link_status(), 2);
        open = i == 0 ? open_descriptors() : open;
        cloud_api_destroy();
    }
    broker.await_closed(999);
    EXPECT_EQ(kxcc_get_link_status(), 2);
    EXPECT_EQ(open_descriptors(), open);
    cloud_api_destroy();
}

TEST(Api, ConnectsAnewAfterABrokenConnection) {
    Broker broker([](const Received &message) -> std::optional<std::string> {
        // Gone between send and receive, on the first connection.
        return message.connection == 0 ? std::nullopt : _status_is_2(message);
    });
    EXPECT_EQ(kxcc_get_link_status(), KXCC_ERROR_RECEIVE);
    EXPECT_NE(cloudApi, nullptr);
    Log log(1);
    EXPECT_EQ(kxcc_get_link_status(), KXCC_ERROR_SEND);  // the signal takes the instance away
    EXPECT_EQ(log.of("cloud_interface"), "ipc send error");
    EXPECT_EQ(cloudApi, nullptr);
    EXPECT_EQ(kxcc_get_link_status(), 2);
    EXPECT_EQ(broker.connections(), 2);
    cloud_api_destroy();
}

TEST(Api, DumpsItsFields) {
    Broker broker(_status_is_2);
    cloudApi = cloud_api_init();
    CloudApi *const api = cloudApi;
    testing::internal::CaptureStdout();
    cloud_api_dump(api);
    const std::string text = testing::internal::GetCapturedStdout();
    char expected[200];
    snprintf(expected, sizeof(expected),
             "%s\n    status :    0\n    clientFd:   %d\n    threadFd:   0\n    cbMaxNum:   20\n        "
             "cb[0]:   %p\n",
             std::string(57, '-').c_str(), api->clientFd, static_cast<void *>(api->cb));
    EXPECT_THAT(text, testing::StartsWith(expected));
    EXPECT_TRUE(text.ends_with("\n" + std::string(56, '-') + "\n"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 26);
    cloud_api_destroy();
}

}  // namespace
