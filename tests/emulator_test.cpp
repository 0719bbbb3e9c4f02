// The emulated device itself, tested by a foreign client: raw sockets and bytes typed by hand,
// so that the broker and cloud_msg cannot share one mistake.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "device.h"
#include "image_scenario.h"
#include "namespace.h"

namespace emulator {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::string_literals;

constexpr const char *kPath = "/tmp/foreign-brd";

const std::string kAcceptBytes = "\xA1\xB2\x00\x10\x00\x00\x00\x1A{\"errorcode\":0,\"result\":0}"s;
const std::string kLinkQuery = "\xA1\xB2\x00\x60\x00\x00\x00\x00"s;
const std::string kLinkReply = "\xA1\xB2\x00\x61\x00\x00\x00\x1A{\"errorcode\":0,\"status\":2}"s;
const std::string kLogicQuery = "\xA1\xB2\x00\x62\x00\x00\x00\x00"s;
const std::string kLogicReply = "\xA1\xB2\x00\x63\x00\x00\x00\x1A{\"errorcode\":0,\"status\":0}"s;

class Client {
public:
    explicit Client(int type = SOCK_STREAM, const char *path = kPath)
        : fd_(socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
        const timeval watchdog{kWatchdog.count(), 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &watchdog, sizeof watchdog);
        connected_ = connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client() { close(fd_); }

    [[nodiscard]] bool connected() const { return connected_; }
    void write(const std::string &bytes) const { ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    /// So many bytes, or fewer when the broker closed.
    [[nodiscard]] std::string read(size_t size) const {
        std::string bytes(size, '\0');
        const ssize_t got = size == 0 ? 0 : recv(fd_, bytes.data(), size, MSG_WAITALL);
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }
    [[nodiscard]] bool closed() const {
        char byte = 0;
        return recv(fd_, &byte, 1, 0) == 0;
    }
    /// One message: its type, and its body.
    [[nodiscard]] std::pair<int, std::string> message() const {
        const std::string header = read(8);
        const auto byte = [&](size_t i) { return static_cast<unsigned char>(header.at(i)); };
        return {byte(2) * 256 + byte(3), read(static_cast<size_t>(byte(6)) * 256 + byte(7))};
    }
    [[nodiscard]] std::pair<int, std::string> ask(int type, const std::string &body) const {
        const auto low = [](size_t value) { return static_cast<char>(value & 0xFF); };
        write("\xA1\xB2\x00"s + low(static_cast<size_t>(type)) + "\x00\x00"s + low(body.size() >> 8U) +
              low(body.size()) + body);
        return message();
    }

private:
    int fd_;
    bool connected_ = false;
};

struct Neighbours {
    explicit Neighbours(const json &scenario = json::object()) : broker(journal, cloud, scenario, kPath) {}
    Journal journal;
    Cloud cloud;
    Broker broker;
};

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

// What the message names as wrong.
std::string _refusal(const std::function<void()> &make) {
    try {
        make();
    } catch (const std::invalid_argument &error) {
        return error.what();
    }
    return "taken";
}

TEST(Scenario, RefusesWhatNoBrokerDoes) {
    for (const auto &[rules, named] : {
             std::pair{R"([{"on":"accept","do":{"silense":true}}])", "\"silense\""},
             {R"([{"on":"accept","n":1,"do":{}}])", "\"n\""},
             {R"([{"on":"accept"}])", "\"do\""},
             {R"([5])", "rule 1 must be an object"},
             {R"([{"on":"accept","do":{}},{"on":"acept","do":{}}])",
              "rule 2 is no message of a client: \"acept\""},
             {R"([{"on":67,"do":{}}])", "client: 67"},
             {R"([{"on":66,"nth":"x","do":{}}])", "\"nth\""},
             {R"([{"on":66,"nth":0,"do":{}}])", "\"nth\""},
             {R"([{"on":66,"do":{"full":"x"}}])", "\"full\""},
             {R"([{"on":66,"do":{"delay_ms":-1}}])", "\"delay_ms\""},
             {R"([{"on":66,"do":{"length":4294967296}}])", "\"length\""},
             {R"([{"on":66,"do":{"errorcode":2147483648}}])", "\"errorcode\""},
             {R"([{"on":66,"do":{"pending":1.5}}])", "\"pending\""},
             {R"([{"on":66,"do":{"magic":"B2A"}}])", "\"magic\""},
             {R"([{"on":66,"do":{"garbage_hex":"0g"}}])", "\"garbage_hex\""},
             {R"([{"on":66,"do":{"body":{}}}])", "\"body\""},
             {R"([{"on":66,"do":{"then":{}}}])", "\"then\""},
             {R"([{"on":66,"do":{"then":["ask"]}}])", "\"ask\""},
             {R"([{"on":66,"do":{"then":[{"foo":1}]}}])", "\"foo\""},
             {R"([{"on":66,"do":{"then":[{"push":"a","body":"b"}]}}])", "one thing"},
             {R"([{"on":66,"do":{"then":[{"link":1,"logic":1}]}}])", "one thing"},
         }) {
        EXPECT_THAT(_refusal([&, rules = rules] {
                        Neighbours(json{{"rules", json::parse(rules)}});
                    }),
                    testing::HasSubstr(named))
            << rules;
    }
    for (const char *scenario : {R"({"lnk":1})", R"({"listening":1})", R"({"kmpd":"asleep"})", "[]"}) {
        EXPECT_NE(_refusal([&] { Device(json::parse(scenario)); }), "taken") << scenario;
    }
}

TEST(Scenario, RefusesWhatNoImageServerDoes) {
    Journal journal;
    ImageServer server(journal);
    for (const char *rules :
         {R"([{"pth":"/"}])", R"([{"path":5,"do":{}}])", R"([{"do":{"stal_after":1}}])",
          R"([{"do":{"status":"x"}}])", R"([{"do":{"length":"x"}}])", R"([{"do":{"trickle":{"bytes":1}}}])",
          R"([{"do":{"trickle":{"bytes":0,"ms":1}}}])"}) {
        EXPECT_NE(_refusal([&] { server.set_rules(json::parse(rules)); }), "taken") << rules;
    }
    EXPECT_NE(_refusal([&] { (void)make_image_server(journal, json{{"tsl", true}}); }), "taken");
}

TEST(CloudModelChange, RefusesWhatNoModelHas) {
    for (const char *model :
         {R"({"acounts":[]})", R"({"accounts":5})", R"({"accounts":[{"nme":"a","password":"b"}]})",
          R"({"accounts":[{"name":"a","password":"b","role":"c"}]})", R"({"device":{"ownr":"a"}})",
          R"({"device":{"users":[1]}})", R"({"token":{"expiresIn":"1"}})",
          R"({"firmware":[{"fwVr":"1.0.1"}]})", R"({"firmware":[{"fwVer":1}]})", "5"}) {
        EXPECT_NE(_refusal([&] { Cloud(json::parse(model)); }), "taken") << model;
    }
}

TEST(ImageServerTest, AnswersAsARuleTellsWhateverWasAsked) {
    Journal journal;
    ImageServer server(journal);
    server.put("/fw.bin", "content");
    server.set_rules(json::parse(R"([{"nth":1,"do":{"status":206}}])"));
    const auto fetched = [&](const char *range) {
        return Process({"curl", "-s", "-H", range, server.url("/fw.bin")}).wait().out;
    };
    EXPECT_EQ(fetched("A: b"), "content") << "206 without a range";
    EXPECT_EQ(fetched("Range: bytes=3-1"), "content") << "a range that ends before it begins";
}

TEST(ImageServerTest, IsTrustedUnlessAScenarioWantsOtherwise) {
    constexpr int kUntrusted = 60;  // curl's codes
    constexpr int kFailed = 22;
    for (const auto &[image, status] : {std::pair{R"({"tls":true,"trusted":false})", kUntrusted},
                                        {R"({"tls":true,"rules":[{"do":{"status":404}}]})", kFailed}}) {
        Journal journal;
        const auto server = make_image_server(journal, json::parse(image));
        server->put("/fw.bin", "content");
        EXPECT_EQ(Process({"curl", "-sf", server->url("/fw.bin")}).wait().status, status) << image;
    }
}

struct Call {
    const char *name;
    std::vector<std::pair<const char *, json>> before;  // method and params that succeed
    std::string request;
    std::string answer;
};

void PrintTo(const Call &row, std::ostream *out) {
    *out << row.name;
}

class CloudModel : public testing::TestWithParam<Call> {};

TEST_P(CloudModel, Answers) {
    Cloud cloud;
    for (const auto &[method, params] : GetParam().before) {
        EXPECT_THAT(cloud.answer(dump({{"method", method}, {"params", params}})),
                    testing::StartsWith(R"({"error_code":0)"));
    }
    EXPECT_EQ(cloud.answer(GetParam().request), GetParam().answer);
}

json _by(const char *user, const char *password) {
    return {{"deviceId", kDeviceId}, {"cloudUserName", user}, {"cloudPassword", password}};
}

std::string _request(const char *method, const json &params) {
    return dump({{"method", method}, {"params", params}});
}

std::string _refused(int code, const char *message) {
    return Cloud::failure(code, message);
}

const json kAlice = _by("alice@example.com", "Secret-1");
const json kBob = _by("bob@example.com", "Secret-2");
const json kCarol = _by("carol@example.com", "Secret-3");
const json kNobody = _by("nobody", "x");
const std::string kDone = R"({"error_code":0,"result":{}})";
constexpr const char *kNoParameter = "Parameter missing or of a wrong type: ";

INSTANTIATE_TEST_SUITE_P(
    Rows, CloudModel,
    testing::Values(
        Call{"bind", {}, _request("bindDevice", _by("ALICE@example.com", "Secret-1")), kDone},
        Call{"bind_again", {{"bindDevice", kAlice}}, _request("bindDevice", kAlice), kDone},
        Call{"bind_wrong_password",
             {},
             _request("bindDevice", _by("alice@example.com", "secret-1")),
             _refused(-20202, "Password incorrect")},
        Call{"bind_unknown", {}, _request("bindDevice", kNobody), _refused(-20201, "Account doesn't exist")},
        Call{"bind_other",
             {{"bindDevice", kAlice}},
             _request("bindDevice", kCarol),
             _refused(-20302, "Device is bound to another account")},
        Call{"bind_no_params",
             {},
             R"({"method":"bindDevice"})",
             _refused(-20102, (kNoParameter + "deviceId"s).c_str())},
        Call{"unbind", {{"bindDevice", kAlice}}, _request("unbindDevice", kAlice), kDone},
        Call{"unbind_twice",
             {{"bindDevice", kAlice}, {"unbindDevice", kAlice}},
             _request("unbindDevice", kAlice),
             _refused(-20303, "Device is not bound")},
        Call{"unbind_by_other",
             {{"bindDevice", kAlice}},
             _request("unbindDevice", kBob),
             _refused(-20304, "Account is not the owner")},
        Call{"login_owner",
             {{"bindDevice", kAlice}},
             _request("deviceAccountLogin", kAlice),
             R"({"error_code":0,"result":{"role":0}})"},
        Call{"login_user",
             {{"bindDevice", kAlice}},
             _request("deviceAccountLogin", kBob),
             R"({"error_code":0,"result":{"role":1}})"},
        Call{"login_stranger",
             {{"bindDevice", kAlice}},
             _request("deviceAccountLogin", kCarol),
             _refused(-20304, "Account is no user of this device")},
        Call{"alias_no_text",
             {},
             _request("updateAlias", {{"deviceId", kDeviceId}, {"alias", 5}}),
             _refused(-20102, (kNoParameter + "alias"s).c_str())},
        Call{"other_device",
             {},
             _request("updateAlias", {{"deviceId", "00"}, {"alias", ""}}),
             _refused(-20301, "Device doesn't exist")},
        Call{"removed_user",
             {{"bindDevice", kAlice},
              {"removeDeviceUser",
               {{"deviceId", kDeviceId},
                {"ownerAccount", "alice@example.com"},
                {"userAccount", "BOB@example.com"}}}},
             _request("deviceAccountLogin", kBob),
             _refused(-20304, "Account is no user of this device")},
        Call{"token",
             {{"bindDevice", kAlice}},
             _request("getDeviceTokenWithServices",
                      {{"deviceId", kDeviceId}, {"serviceIds", {"eweb", "other", 1}}}),
             R"({"error_code":0,"result":{"deviceToken":"7f3a90c2d6e84b15","expiresIn":7200,)"
             R"("serviceUrls":{"eweb":"https://eweb.example.com/device"}}})"},
        Call{"newest_firmware",
             {},
             _request("getIntlFwList", {{"devFwCurrentVer", "1.0.10"}}),
             R"({"error_code":0,"result":{"fwList":[]}})"},
        Call{"passthrough",
             {},
             _request("getWeather", 5),
             R"({"error_code":0,"result":{"city":"Exampleville","sky":"clear","celsius":21}})"},
        Call{"unknown", {}, R"({"method":"a"})", _refused(-20103, "Method doesn't exist")},
        Call{"no_method", {}, "{}", _refused(-20101, "Not a request")},
        Call{"no_json", {}, "{\"method\":", _refused(-20101, "Not a request")},
        Call{"no_utf8", {}, "{\"method\":\"\xFF\xFE\"}", _refused(-20103, "Method doesn't exist")},
        Call{"deep", {}, std::string(200000, '['), _refused(-20101, "Not a request")}),
    [](const auto &row) { return row.param.name; });

// The third datagram of a sequence as a big-endian or little-endian program would send it.
std::string _datagram(bool big_endian) {
    std::string bytes(10360, '\0');
    bytes.replace(8, 8,
                  big_endian ? "\x00\x00\x00\xA0\x00\x00\x00\x01"s : "\xA0\x00\x00\x00\x01\x00\x00\x00"s);
    bytes.replace(16, 32, "signalbooster425425425425425425m");
    bytes.replace(120, 40, "AQACAAEABQAACAAAAAAAAAKejGoBAQYAAAAAAA==");
    return bytes;
}

TEST(Kmpd, FindsAFaultAtEachOffset) {
    for (const bool big_endian : {false, true}) {
        const std::string right = _datagram(big_endian);
        EXPECT_THAT(check_datagram(right, big_endian), IsEmpty());
        EXPECT_THAT(check_datagram(right, !big_endian), testing::SizeIs(2));
        EXPECT_THAT(check_datagram(right.substr(1), big_endian), ElementsAre("size 10359"));
        std::string wrong = right;
        for (size_t offset = 0; offset < right.size(); offset += offset < 200 ? 1 : 7) {
            wrong[offset] = static_cast<char>(right[offset] ^ 'x');
            if (offset < 120 || offset >= 160) {  // the payload's letters themselves are free
                EXPECT_THAT(check_datagram(wrong, big_endian), testing::Not(IsEmpty())) << offset;
            }
            wrong[offset] = right[offset];
        }
    }
}

auto _holds(json members) {
    return testing::Truly(has(std::move(members)));
}

TEST(Kmpd, RecordsAndAnswersAsTold) {
    for (const auto &[mode, size] : {std::pair{"answer", 10360}, {"oversize", 20720}}) {
        Device device(json{{"kmpd", mode}});
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un own{AF_UNIX, "/tmp/own"};
        sockaddr_un peer{AF_UNIX, "/tmp/cloud_kmpd_unix"};
        ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own), 0);
        const std::string bytes = _datagram(false);
        sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&peer), sizeof peer);
        std::vector<char> answer(100000);
        EXPECT_EQ(recv(fd, answer.data(), answer.size(), 0), size);
        EXPECT_THAT(device.journal().of_kind("datagram"),
                    ElementsAre(_holds({{"length", 160}, {"message", 1}, {"faults", json::array()}})));
        close(fd);
    }
    EXPECT_FALSE(Client(SOCK_DGRAM, (Device(json{{"kmpd", "absent"}}), "/tmp/cloud_kmpd_unix")).connected());
}

TEST(DeviceTest, RecordsScriptsAndConsoleBeforeTheRunReturns) {
    Device device;
    const auto run = device.run(
        {"sh", "-c",
         "/usr/bin/dropbreload & sh /usr/bin/deleteToken.sh '72 00' \"'\" & "
         "echo one > /dev/console; printf 'two\\nthree \\377\\n' > /dev/console; echo out; exit 3"});
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.out, "out\n");
    EXPECT_THAT(
        device.journal().of_kind("script"),
        testing::UnorderedElementsAre(_holds({{"name", "dropbreload"}, {"arguments", json::array()}}),
                                      _holds({{"name", "deleteToken.sh"}, {"arguments", {"72 00", "'"}}})));
    EXPECT_THAT(
        device.journal().of_kind("console"),
        ElementsAre(_holds({{"text", "one"}}), _holds({{"text", "two"}}), _holds({{"text", "three \xFF"}})));
    EXPECT_THAT(device.journal().text(), testing::HasSubstr("\"three \xEF\xBF\xBD\""));
}

TEST(DeviceTest, IsFreshAfterReset) {
    Device device;
    const std::vector<std::string> look{"sh", "-c", "ls -A /tmp /mnt; cat /tmp/device.info /tmp/softinfo"};
    const auto fresh = device.run(look);
    EXPECT_THAT(fresh.out, testing::HasSubstr("cloud-brd\ncloud_kmpd_unix\n"));
    EXPECT_THAT(fresh.out, testing::EndsWith("}1.0.3 Build 20200923 Rel.36519\n"));
    EXPECT_EQ(device.run({"sh", "-c", "mkdir /tmp/a /mnt/b; touch /tmp/a/x; rm /tmp/softinfo"}).status, 0);
    device.reset();
    EXPECT_EQ(device.run(look).out, fresh.out);
    EXPECT_THAT(device.journal().of_kind("run"), testing::SizeIs(1));
}

TEST(DeviceTest, KillsWhatDoesNotEnd) {
    Device device;
    RunOptions options;
    options.watchdog = std::chrono::milliseconds(50);
    EXPECT_THROW(device.run({"sh", "-c", "sleep 1000"}, options), std::runtime_error);
    device.settle();
    EXPECT_EQ(device.run({"pgrep", "sleep"}).out, "");
}

// From here on: the extender program, run inside this device, which is its host.

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
    std::ofstream("/tmp/cloud_dl_img.lock").flush();
    put("5");
    Process progress = _start_extender({"progress"});
    while (progress.running() && progress.out().find("asked the cloud") == std::string::npos) {
    }
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
    const auto as_user = [&](std::vector<std::string> more) {
        more.insert(more.begin(), words.begin(), words.end());
        return Process(std::move(more)).wait();
    };
    if (as_user({"true"}).status != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    ASSERT_EQ(mount("tmpfs", "/srv", "tmpfs", 0, "mode=0777"), 0);
    const std::string host = std::string("/tmp/host_of_") + GetParam().name;
    std::filesystem::create_directories(host + "/flash");
    for (const std::string &folder : {host, host + "/flash"}) {
        std::filesystem::permissions(folder, std::filesystem::perms::all);
    }
    std::filesystem::current_path(host);
    const auto run = as_user(
        {_extender(), "run", "--flash", "flash", "--journal", "j", "--", "sh", "-c",
         "for at in / /etc /root /srv $PWD /proc/sys/kernel; do"
         " ! touch $at/hostname 2>/dev/null || echo $at; done; touch /tmp/x /mnt/x /dev/shm/x /usr/bin/x"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "") << "could be written to";
    EXPECT_TRUE(std::filesystem::exists("flash/x"));
    EXPECT_GT(std::filesystem::file_size("j"), 0U);
}

// A user inside a device gets no /proc of that user's own, and without one nobody can look for leaks.
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
    EXPECT_EQ(line, R"({"seq":1,"kind":"script","name":"dropbreload","arguments":["1"]})");
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
    EXPECT_THAT(lines, testing::UnorderedElementsAre("before", "after", testing::HasSubstr("\"dropbreload\""),
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
    testing::Values(Misuse{"unknown_word", "$0 bogus", 125, "bogus"},
                    Misuse{"no_word", "$0", 125, "subcommand"},
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
