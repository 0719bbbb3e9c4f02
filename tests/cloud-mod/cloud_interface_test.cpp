// The calls on the main connection: what they send, and what they make of every reply.
#include <gmock/gmock.h>
#include <kxcc.h>

#include <climits>

#include "cloud_api.h"
#include "cloud_ipc.h"
#include "cloud_mod_support.h"
#include "cloud_owner.h"
#include "cloud_time.h"

using testing::ElementsAre;
using testing::IsSupersetOf;

namespace {

constexpr const char *kSubmitted = R"({"errorcode":0,"id":5})";

int32_t _submit() {
    return kxcc_send_request_async("{}", 1000, 1, nullptr);
}
int32_t _submit_noaccount() {
    return kxcc_send_request_async_noaccount("{}", 1000, 1, nullptr);
}
int32_t _sync() {
    char *text = nullptr;
    const int32_t result = kxcc_send_request_sync("{}", 1000, 1, &text);
    free(text);
    return result;
}
int32_t _poll() {
    cloudApi = cloud_api_init();
    char *text = nullptr;
    const int32_t result = kxcc_get_response(5, &text);
    const HeapText owner(text);
    EXPECT_EQ(result == KXCC_OK, text != nullptr);
    EXPECT_STREQ(text == nullptr ? "x" : text, "x");
    return result;
}
int32_t _notify() {
    return kxcc_notify_cloud_brd(3);
}

struct Reply {
    const char *name;
    int32_t (*call)();
    std::optional<std::string> bytes;
    int32_t result;
    const char *logged = "";  // errors of the unit
    friend void PrintTo(const Reply &row, std::ostream *out) { *out << row.name; }
};

class Interface : public testing::TestWithParam<Reply> {};

TEST_P(Interface, ReturnsItsCode) {
    Broker broker([](const Received & /*message*/) { return GetParam().bytes; });
    Log log(1);
    EXPECT_EQ(GetParam().call(), GetParam().result);
    EXPECT_EQ(log.of("cloud_interface"), GetParam().logged);
    cloud_api_destroy();
}

INSTANTIATE_TEST_SUITE_P(
    Submit, Interface,
    testing::Values(
        Reply{"Id", _submit, frame(65, kSubmitted), 5},
        Reply{"IdNoAccount", _submit_noaccount, frame(1, kSubmitted), 5},
        Reply{"HangsUp", _submit, std::nullopt, -2002}, Reply{"Silent", _submit, "", -2002},
        Reply{"NoMagic", _submit, "01234567", -1000},
        Reply{"NoBody", _submit, frame(65, ""), -6000, "json parse error"},
        Reply{"NotJson", _submit_noaccount, frame(65, "{"), -6000, "json parse error"},
        Reply{"NoErrorcode", _submit, frame(65, R"({"id":5})"), -6000, "errorcode parse error"},
        Reply{"NullCode", _submit, frame(65, R"({"errorcode":null,"id":5})"), -6000, "errorcode parse error"},
        Reply{"Rejected", _submit, frame(65, R"({"errorcode":-17})"), -17, "send request async error"},
        Reply{"Positive", _submit, frame(65, R"({"errorcode":7,"id":5})"), 7, "send request async error"},
        Reply{"NoId", _submit, frame(65, R"({"errorcode":0,"ID":5})"), -6000, "id parse error"},
        Reply{"SyncRejected", _sync, frame(65, R"({"errorcode":-17})"), -17,
              "send request async error / send request async error"}),
    [](const auto &tested) { return tested.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Poll, Interface,
    testing::Values(
        Reply{"Answered", _poll, frame(67, R"({"id":5,"errorcode":0,"response":"x"})"), 0},
        Reply{"OtherId", _poll, frame(67, R"({"id":6,"errorcode":0,"response":"x"})"), 0},
        Reply{"Failed", _poll, frame(67, R"({"id":5,"errorcode":-2,"response":"x"})"), 0},
        Reply{"Pending", _poll, frame(67, R"({"id":5,"errorcode":-3001})"), -3001},
        Reply{"NoErrorcode", _poll, frame(67, R"({"id":5})"), -3001},
        Reply{"HangsUp", _poll, std::nullopt, -2002, "ipc recv error"},
        Reply{"Type65", _poll, frame(65, "{}"), -1000, "receive msg type error, type:65, msg:{}"},
        Reply{"NoBody", _poll, frame(67, ""), -1000, "receive msg type error, type:67, msg:(null)"},
        Reply{"NotJson", _poll, frame(67, "%s%n"), -6000, "parse json error, msg:%s%n"},
        Reply{"NoId", _poll, frame(67, R"({"errorcode":0,"response":"x"})"), -6000, "get id error"},
        Reply{"NoText", _poll, frame(67, R"({"id":5,"errorcode":0})"), -6000, "parse response error"},
        Reply{"Tree", _poll, frame(67, R"({"id":5,"errorcode":0,"response":{}})"), -6000,
              "parse response error"}),
    [](const auto &tested) { return tested.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Status, Interface,
    testing::Values(
        Reply{"Notified", _notify, frame(1, R"({"errorcode":0})"), 0},
        Reply{"NotifyRefused", _notify, frame(81, R"({"errorcode":-5})"), -5},
        Reply{"NotifyNoKey", _notify, frame(81, R"({"status":0})"), -6000, "parse errorcode error"},
        Reply{"NotifyHangsUp", _notify, std::nullopt, -2002, "ipc recv error"},
        Reply{"Link", kxcc_get_link_status, frame(97, R"({"errorcode":0,"status":2})"), 2},
        Reply{"Logic", kxcc_get_logic_status, frame(99, R"({"errorcode":0,"status":1})"), 1},
        Reply{"LinkError", kxcc_get_link_status, frame(97, R"({"errorcode":7,"status":2})"), 7,
              "errorcode:7"},
        Reply{"LinkNoStatus", kxcc_get_link_status, frame(97, R"({"errorcode":0})"), -6000,
              "parse status error"},
        Reply{"LogicNoCode", kxcc_get_logic_status, frame(99, "[0,1]"), -6000, "parse errorcode error"},
        Reply{"LinkNotJson", kxcc_get_link_status, frame(97, "up"), -6000, "parse message error"},
        Reply{"LogicCut", kxcc_get_logic_status, frame(99, "{}").substr(0, 9), -1000, "ipc recv error"}),
    [](const auto &tested) { return tested.param.name; });

TEST(InterfaceLogs, InTheNameOfTheCall) {
    const struct {
        int32_t (*call)();
        std::optional<std::string> bytes;
        const char *logged;
    } rows[] = {
        {_submit, std::nullopt, " kxcc_send_request_async | - ipc recv error\n"},
        {_submit_noaccount, std::nullopt, " kxcc_send_request_async_noaccount | - ipc recv error\n"},
        {_poll, frame(67, "{}"), " kxcc_get_response | - get id error\n"},
        {_notify, frame(81, "{}"), " kxcc_notify_cloud_brd | - parse errorcode error\n"},
        {kxcc_get_link_status, frame(97, ""), " kxcc_get_link_status | - parse message error\n"},
        {kxcc_get_logic_status, frame(99, "{}").substr(0, 9), " cloud_ipc_recv | - message body receive"},
    };
    for (const auto &row : rows) {
        const Broker broker([&](const Received & /*message*/) { return row.bytes; });
        Log log(4);
        row.call();
        EXPECT_THAT(log.raw(), testing::HasSubstr(row.logged));
        cloud_api_destroy();
    }
}

TEST(InterfaceSends, ItsMessages) {
    Broker broker([](const Received &message) {
        return frame(message.type + 1, R"({"errorcode":0,"id":5,"status":1,"response":"x"})");
    });
    kxcc_send_request_async(R"({"method":"m\\"})", -1, 3, nullptr);
    kxcc_send_request_async_noaccount("", 0, INT_MIN, nullptr);
    char *text = nullptr;
    EXPECT_EQ(kxcc_get_response(INT_MAX, &text), 0);
    free(text);
    kxcc_notify_cloud_brd(INT_MIN);
    kxcc_get_link_status();
    kxcc_get_logic_status();
    std::vector<std::string> sent;
    for (const Received &message : broker.received()) {
        sent.push_back(std::to_string(message.type) + " " + message.body);
    }
    EXPECT_THAT(sent, ElementsAre(R"(64 {"request":"{\"method\":\"m\\\\\"}","timeout":5000,"flag":3})",
                                  R"(68 {"request":"","timeout":0,"flag":-2147483648})",
                                  R"(66 {"id":2147483647})", R"(80 {"event":-2147483648})", "96 ", "98 "));
    EXPECT_EQ(broker.connections(), 1);
    cloud_api_destroy();
}

TEST(InterfacePoll, RefusesWithoutIdOrInstance) {
    char *text = nullptr;
    EXPECT_EQ(kxcc_get_response(5, &text), KXCC_ERROR_PARAMETER);
    Broker broker([](const Received & /*message*/) { return std::nullopt; });
    cloudApi = cloud_api_init();
    EXPECT_EQ(kxcc_get_response(0, &text), KXCC_ERROR_PARAMETER);
    EXPECT_EQ(kxcc_get_response(-1, &text), KXCC_ERROR_PARAMETER);
    EXPECT_TRUE(broker.received().empty());
    cloud_api_destroy();
}

// Answers the n-th poll of each request, with its id as the text.
Broker::Answer _nth_poll(int nth) {
    return [nth, polls = 0](const Received &message) mutable -> std::string {
        if (message.type == 64) {
            polls = 0;
            return frame(65, kSubmitted);
        }
        return frame(67, ++polls < nth ? R"({"id":5,"errorcode":-3001})"
                                       : R"({"id":5,"errorcode":0,"response":"\u00e9"})");
    };
}

TEST(InterfaceSync, PollsUntilTheAnswer) {
    Broker broker(_nth_poll(3));
    char *text = nullptr;
    const int64_t start = cloud_time_ms();
    EXPECT_EQ(kxcc_send_request_sync("{}", 5000, 1, &text), 0);
    EXPECT_GE(cloud_time_ms() - start, 990);
    EXPECT_STREQ(text, "\xC3\xA9");
    free(text);
    EXPECT_EQ(broker.received(66).size(), 3U);
    cloud_api_destroy();
}

TEST(InterfaceSync, WaitsItsTimeout) {
    Broker broker(_nth_poll(INT_MAX));
    char *text = nullptr;
    EXPECT_EQ(kxcc_send_request_sync("{}", 0, 1, &text), KXCC_ERROR_TIMEOUT);
    EXPECT_TRUE(broker.received(66).empty());
    const int64_t start = cloud_time_ms();
    EXPECT_EQ(kxcc_send_request_sync("{}", -1, 1, &text), KXCC_ERROR_TIMEOUT);
    EXPECT_GE(cloud_time_ms() - start, 5000);
    EXPECT_EQ(text, nullptr);
    cloud_api_destroy();
}

TEST(InterfaceSync, TakesEveryFailedPollForPending) {
    Broker broker([](const Received &message) -> std::optional<std::string> {
        // A positive error code looks like an id. The connection breaks at the first poll for it.
        return message.type == 64 ? std::optional(frame(65, R"({"errorcode":7})")) : std::nullopt;
    });
    char *text = nullptr;
    EXPECT_EQ(kxcc_send_request_sync("{}", 1200, 1, &text), KXCC_ERROR_TIMEOUT);
    EXPECT_EQ(broker.await(66).body, R"({"id":7})");
    cloud_api_destroy();
}

TEST(InterfaceSync, AThousandRequestsKeepNothing) {
    Broker broker(_nth_poll(1));
    const auto request = [] {
        char *text = nullptr;
        ASSERT_EQ(kxcc_send_request_sync("{}", 5000, 1, &text), 0);
        free(text);
    };
    request();
    const int open = open_descriptors();
    const int living = living_allocations();
    for (int i = 0; i < 1000; ++i) {
        request();
    }
    EXPECT_EQ(open_descriptors(), open);
    EXPECT_EQ(living_allocations(), living);
    EXPECT_EQ(broker.connections(), 1);
    EXPECT_EQ(broker.received(64).size(), 1001U);
    cloud_api_destroy();
}

TEST(InterfaceSync, ReportsWhatCannotBeHad) {
    Broker broker(_nth_poll(1));
    Log log(4);
    with_each_allocation_failing([] {
        char *text = nullptr;
        if (kxcc_send_request_sync("{}", 400, 1, &text) == 0) {
            EXPECT_STREQ(text, "\xC3\xA9");
        }
        free(text);
        cloud_api_destroy();
    });
    EXPECT_THAT(log.lines(), IsSupersetOf({"debug cloud_interface: create json error",
                                           "error ../cloud-mod/util/cloud_ipc: message string malloc error",
                                           "error cloud_interface: string dup error"}));
}

}  // namespace
