// The broker, tested by a foreign client.
#include <gmock/gmock.h>

#include <string>

#include "emulator_support.h"

namespace emulator {
namespace {

using namespace std::string_literals;

const std::string kAcceptBytes = "\xA1\xB2\x00\x10\x00\x00\x00\x1A{\"errorcode\":0,\"result\":0}"s;
const std::string kLinkQuery = "\xA1\xB2\x00\x60\x00\x00\x00\x00"s;
const std::string kLinkReply = "\xA1\xB2\x00\x61\x00\x00\x00\x1A{\"errorcode\":0,\"status\":2}"s;
const std::string kLogicQuery = "\xA1\xB2\x00\x62\x00\x00\x00\x00"s;
const std::string kLogicReply = "\xA1\xB2\x00\x63\x00\x00\x00\x1A{\"errorcode\":0,\"status\":0}"s;

using Reply = std::pair<int, std::string>;

TEST(Broker, SpeaksTheWireFormat) {
    Neighbours device;
    const Client client;
    EXPECT_EQ(client.read(kAcceptBytes.size()), kAcceptBytes);
    client.write(kLinkQuery + kLogicQuery);  // two in one write
    EXPECT_EQ(client.read(kLinkReply.size()), kLinkReply);
    EXPECT_EQ(client.read(kLogicReply.size()), kLogicReply);
    EXPECT_EQ(client.ask(80, R"({"event":10})"), (Reply{81, R"({"errorcode":0})"}));
    EXPECT_EQ(device.broker.logic(), 1);
    EXPECT_EQ(client.ask(64, R"({"request":"{\"method\":\"a\"}","timeout":5000,"flag":1})"),
              (Reply{65, R"({"errorcode":0,"id":1})"}));
    EXPECT_EQ(client.ask(66, R"({"id":2})"), (Reply{67, R"({"id":2,"errorcode":-3001})"}));
    const Reply answer{67, R"({"id":1,"errorcode":0,"response":"{\"error_code\":-20103,)"
                           R"(\"msg\":\"Method doesn't exist\"}"})"};
    EXPECT_EQ(client.ask(66, R"({"id":1})"), answer);
    EXPECT_EQ(client.ask(66, R"({"id":1})"), (Reply{67, R"({"id":1,"errorcode":-3001})"}))
        << "held until polled";
    EXPECT_EQ(device.journal.messages(64).at(0).at("connection"), 1);
    EXPECT_EQ(device.journal.of_kind("event").at(0).at("event"), 10);
}

TEST(Broker, HangsUpOnWhatIsNoMessage) {
    for (const std::string &bytes :
         {"\xB2\xA1\x00\x60\x00\x00\x00\x00"s, "\xA1\xB2\x00\x60\xFF\xFF\xFF\xFF"s}) {
        Neighbours device;
        const Client client;
        EXPECT_EQ(client.read(kAcceptBytes.size()), kAcceptBytes);
        client.write(bytes);
        EXPECT_TRUE(client.closed());
        EXPECT_EQ(device.journal.of_kind("bad_message").size(), 1U);
    }
}

struct Fault {
    const char *name;
    json effects;       // of the first link query
    std::string bytes;  // that come in its place
    bool closes = false;
};

void PrintTo(const Fault &row, std::ostream *out) {
    *out << row.name;
}

class BrokerFault : public testing::TestWithParam<Fault> {};

TEST_P(BrokerFault, ShowsInTheBytesOfThatReplyOnly) {
    Neighbours device(json{{"rules", {{{"on", "link"}, {"nth", 1}, {"do", GetParam().effects}}}}});
    const Client client;
    EXPECT_EQ(client.read(kAcceptBytes.size()), kAcceptBytes);
    client.write(kLinkQuery);
    EXPECT_EQ(client.read(GetParam().bytes.size()), GetParam().bytes);
    if (GetParam().closes) {
        EXPECT_TRUE(client.closed());
        return;
    }
    client.write(kLinkQuery);  // nothing else stands before the next reply
    EXPECT_EQ(client.read(kLinkReply.size()), kLinkReply);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BrokerFault,
    testing::Values(
        Fault{"close", {{"close", true}}, "", true},
        Fault{"cut", {{"close_after", 11}}, kLinkReply.substr(0, 11), true},
        Fault{"cut_in_header", {{"close_after", 3}}, "\xA1\xB2\x00"s, true},
        Fault{"silence", {{"silence", true}}, ""},
        Fault{"magic", {{"magic", "B2A1"}}, "\xB2\xA1"s + kLinkReply.substr(2)},
        Fault{"type", {{"type", 258}}, "\xA1\xB2\x01\x02"s + kLinkReply.substr(4)},
        Fault{"truncated", {{"truncate", 5}}, kLinkReply.substr(0, 13)},
        Fault{"length", {{"length", 4294967295}}, "\xA1\xB2\x00\x61\xFF\xFF\xFF\xFF"s + kLinkReply.substr(8)},
        Fault{"garbage", {{"garbage", "no frame"}}, "no frame"},
        Fault{"bytes", {{"garbage_hex", "00ff1A"}}, "\x00\xFF\x1A"s},
        Fault{"body", {{"body", "{]"}}, "\xA1\xB2\x00\x61\x00\x00\x00\x02{]"s},
        Fault{"empty_body", {{"body", ""}}, "\xA1\xB2\x00\x61\x00\x00\x00\x00"s},
        Fault{"errorcode", {{"errorcode", -17}}, "\xA1\xB2\x00\x61\x00\x00\x00\x11{\"errorcode\":-17}"s},
        Fault{"twice", {{"repeat", 2}}, kLinkReply + kLinkReply},
        Fault{"late", {{"delay_ms", 20}}, kLinkReply}),
    [](const auto &row) { return row.param.name; });

TEST(Broker, AcceptsRefusesAndIsFullByConnection) {
    Neighbours device(json{{"rules",
                            {{{"on", "accept"}, {"connection", 1}, {"do", {{"refuse", -5}}}},
                             {{"on", 16}, {"connection", 2}, {"do", {{"full", true}}}}}}});
    EXPECT_EQ(Client().message(), (Reply{16, R"({"errorcode":-5,"result":0})"}));
    EXPECT_EQ(Client().message(), (Reply{16, R"({"errorcode":0,"result":1})"}));
    EXPECT_EQ(Client().message(), (Reply{16, R"({"errorcode":0,"result":0})"}));
}

TEST(Broker, AnswersAsScriptedForOneMethod) {
    Neighbours device(
        json{{"first_id", 7},
             {"rules",
              {{{"on", "request"}, {"method", "slow"}, {"do", {{"pending", 2}, {"answer", "raw"}}}},
               {{"on", 68}, {"method", "bad"}, {"do", {{"cloud_error", -9}}}},
               {{"on", "poll"}, {"method", "bad"}, {"nth", 1}, {"do", {{"hold", true}}}}}}});
    const Client client;
    (void)client.message();
    EXPECT_EQ(client.ask(64, R"({"request":"{\"method\":\"slow\"}"})").second, R"({"errorcode":0,"id":7})");
    EXPECT_EQ(client.ask(68, R"({"request":"{\"method\":\"bad\"}"})"),
              (Reply{69, R"({"errorcode":0,"id":8})"}));
    EXPECT_EQ(client.ask(66, R"({"id":7})").second, R"({"id":7,"errorcode":-3001})");
    EXPECT_EQ(client.ask(66, R"({"id":7})").second, R"({"id":7,"errorcode":-3001})");
    client.write("\xA1\xB2\x00\x42\x00\x00\x00\x08{\"id\":8}"s);  // held back until after the next reply
    EXPECT_EQ(client.ask(66, R"({"id":7})").second, R"({"id":7,"errorcode":0,"response":"raw"})");
    EXPECT_EQ(client.message().second,
              R"({"id":8,"errorcode":0,"response":"{\"error_code\":-9,\"msg\":\"Scripted\"}"})");
}

TEST(Broker, ReconnectsAfterSoManyQueries) {
    Neighbours device(json{{"link", 1}, {"reconnect_polls", 1}});
    const Client client;
    (void)client.message();
    EXPECT_EQ(client.ask(96, "").second, R"({"errorcode":0,"status":1})");
    EXPECT_EQ(client.ask(80, R"({"event":3})").second, R"({"errorcode":0})");
    EXPECT_EQ(client.ask(96, "").second, R"({"errorcode":0,"status":4})");
    EXPECT_EQ(client.ask(96, "").second, R"({"errorcode":0,"status":2})");
}

TEST(Broker, ServesARegisteredClient) {
    Neighbours device(
        json{{"rules", {{{"on", "cloudResponse"}, {"do", {{"then", {{{"type", 200}, {"body", "x"}}}}}}}}}});
    const Client client;
    (void)client.message();
    EXPECT_EQ(client.ask(32, R"({"hellocloud":1})"), (Reply{33, R"({"errorcode":0})"}));
    device.broker.ask_hello();
    EXPECT_EQ(client.message(), (Reply{128, ""}));
    client.write("\xA1\xB2\x00\x81\x00\x00\x00\x2A{\"response\":\"{\\\"method\\\":\\\"helloCloud\\\"}\"}"s);
    (void)device.journal.wait_for(has({{"type", 129}}));
    device.broker.deliver_hello();
    EXPECT_THAT(client.message().second,
                testing::HasSubstr(R"("{\"error_code\":0,\"result\":{\"kcspStatus\":1)"));
    device.broker.push_request("do it");
    EXPECT_EQ(client.message(), (Reply{112, R"({"request":"do it"})"}));
    EXPECT_EQ(client.ask(113, "{}"), (Reply{200, "x"})) << "a step of the scenario";
}

TEST(Broker, StopsInTheMidstOfADelay) {
    Neighbours device(json{{"rules", {{{"on", "accept"}, {"do", {{"delay_ms", 3600000}}}}}}});
    const Client client;
    (void)device.journal.wait_for(has({{"kind", "connect"}}));
    device.broker.stop();
    EXPECT_TRUE(client.closed());
    EXPECT_FALSE(Client().connected());
    device.broker.set_rules(json::array());
    device.broker.start();
    EXPECT_EQ(Client().message().first, 16);
}

}  // namespace
}  // namespace emulator
