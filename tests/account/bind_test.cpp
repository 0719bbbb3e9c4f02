// `bind` from its arguments to the store, and what it does when the broker, the cloud, the store or the
// arguments fail.
#include <gmock/gmock.h>

#include <chrono>

#include "program.h"

namespace {

using namespace program;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

std::vector<std::string> bind_arguments(Device &device) {
    return {"bind", kOwner, device.encrypt(kOwnerPassword)};
}

TEST(Bind, GoesAllTheRoad) {
    Device device;
    const std::string cipher = device.encrypt(kOwnerPassword);
    EXPECT_EQ(printed(device, {"getBindStatus"}), "0\n");
    EXPECT_EQ(printed(device, {"bind", kOwner, cipher}), "0\n") << device.journal().text();
    wait_for_script(device, "dropbreload");

    const std::vector<std::string> expected{
        "98 ",
        R"(68 {"request":"{\"method\":\"bindDevice\",\"params\":{\"deviceId\":)"
        R"(\"8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012\",\"cloudUserName\":\"alice@example.com\",)"
        R"(\"cloudPassword\":\"Secret-1\"}}","timeout":5000,"flag":1})",
        R"(80 {"event":10})"};
    EXPECT_EQ(sent(device), expected);
    const auto polls = device.journal().messages(emulator::kPoll);
    ASSERT_FALSE(polls.empty());
    EXPECT_EQ(polls[0].at("body"), R"({"id":1})");
    EXPECT_EQ(device.journal().of_kind("connect").size(), 1U);
    EXPECT_EQ(device.broker().logic(), 1);

    EXPECT_EQ(file("/tmp/cloud.error"), "0\n");
    EXPECT_EQ(printed(device, {"getBindStatus"}), "1\n");
    EXPECT_EQ(device.store("account"),
              (json{{"count", 1}, {"userName", "alice@example.com"}, {"password", cipher}}));
    EXPECT_EQ(device.store("device-status"), json::parse(R"({"bind_status":1,"need_unbind":0})"));

    // Bound, the same goes over the account path.
    device.journal().clear();
    EXPECT_EQ(printed(device, {"unbind"}), "0\n");
    EXPECT_EQ(sent(device)[1].substr(0, 3), "64 ");
    EXPECT_EQ(sent(device)[2], R"(80 {"event":11})");
    EXPECT_EQ(printed(device, {"getBindStatus"}), "0\n");
}

// What a fault of the broker makes of the command.
struct Fault {
    const char *name;
    const char *scenario;
    int printed;
};

class BrokerFault : public testing::TestWithParam<Fault> {};

TEST_P(BrokerFault, EndsWithItsCode) {
    Device device(json::parse(GetParam().scenario));
    const std::string number = std::to_string(GetParam().printed) + "\n";
    EXPECT_EQ(printed(device, bind_arguments(device)), number) << device.journal().text();
    EXPECT_EQ(file("/tmp/cloud.error"), number);
    EXPECT_EQ(device.store("device-status").at("bind_status"), GetParam().printed == 0 ? 1 : 0);
    EXPECT_EQ(device.store("account").at("count"), GetParam().printed == 0 ? 1 : 0);
    if (GetParam().printed != 0) {
        EXPECT_TRUE(device.journal().of_kind("event").empty());
        EXPECT_TRUE(scripts(device).empty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Handshake, BrokerFault,
    testing::Values(
        Fault{"NotListening", R"({"listening":false})", -2001},
        Fault{"Refused", R"({"rules":[{"on":"accept","do":{"refuse":-5}}]})", -2001},
        Fault{"Full", R"({"rules":[{"on":"accept","do":{"full":true}}]})", -2001},
        Fault{"Closed", R"({"rules":[{"on":"accept","do":{"close":true}}]})", -2001},
        Fault{"ClosedInHeader", R"({"rules":[{"on":"accept","do":{"close_after":5}}]})", -2001},
        Fault{"ClosedInBody", R"({"rules":[{"on":"accept","do":{"close_after":12}}]})", -2001},
        Fault{"Silent", R"({"rules":[{"on":"accept","do":{"silence":true}}]})", -2001},
        Fault{"WrongMagic", R"({"rules":[{"on":"accept","do":{"magic":"B2A1"}}]})", -2001},
        Fault{"WrongType", R"({"rules":[{"on":"accept","do":{"type":17}}]})", -2001},
        Fault{"Garbage", R"({"rules":[{"on":"accept","do":{"garbage":"GET / HTTP/1.1\r\n\r\n"}}]})", -2001},
        Fault{"NoBody", R"({"rules":[{"on":"accept","do":{"body":""}}]})", -2001},
        Fault{"NotJson", R"({"rules":[{"on":"accept","do":{"body":"{"}}]})", -2001},
        Fault{"NoErrorCode", R"({"rules":[{"on":"accept","do":{"body":"{\"result\":0}"}}]})", -2001},
        Fault{"OtherCaseOfKey",
              R"({"rules":[{"on":"accept","do":{"body":"{\"ErrorCode\":0,\"result\":0}"}}]})", -2001},
        Fault{"NoResult", R"({"rules":[{"on":"accept","do":{"body":"{\"errorcode\":0}"}}]})", -2001},
        // Only 1 means full, and a slow broker is no fault.
        Fault{"OtherResult", R"({"rules":[{"on":"accept","do":{"body":"{\"errorcode\":0,\"result\":2}"}}]})",
              0},
        Fault{"Slow", R"({"rules":[{"on":"accept","do":{"delay_ms":1500}}]})", 0}),
    row_name<Fault>);

// A mode that cannot be read is no account mode, and the connection is used as it is.
INSTANTIATE_TEST_SUITE_P(
    Mode, BrokerFault,
    testing::Values(Fault{"Refused", R"({"rules":[{"on":98,"do":{"errorcode":7}}]})", 0},
                    Fault{"NotJson", R"({"rules":[{"on":98,"do":{"body":"nothing"}}]})", 0},
                    Fault{"NoStatus", R"({"rules":[{"on":98,"do":{"body":"{\"errorcode\":0}"}}]})", 0},
                    Fault{"Silent", R"({"rules":[{"on":98,"do":{"silence":true}}]})", 0},
                    // The write that finds the connection gone fails; SIGPIPE does not end the program.
                    Fault{"Closed", R"({"rules":[{"on":98,"do":{"close":true}}]})", -2001}),
    row_name<Fault>);

INSTANTIATE_TEST_SUITE_P(
    Submit, BrokerFault,
    testing::Values(Fault{"Refused", R"({"rules":[{"on":68,"do":{"errorcode":-17}}]})", -17},
                    Fault{"Closed", R"({"rules":[{"on":68,"do":{"close":true}}]})", -2002},
                    Fault{"ClosedInHeader", R"({"rules":[{"on":68,"do":{"close_after":3}}]})", -2002},
                    Fault{"ClosedInBody", R"({"rules":[{"on":68,"do":{"close_after":10}}]})", -1000},
                    Fault{"Silent", R"({"rules":[{"on":68,"do":{"silence":true}}]})", -2002},
                    Fault{"WrongMagic", R"({"rules":[{"on":68,"do":{"magic":"B2A1"}}]})", -1000},
                    Fault{"HugeLength", R"({"rules":[{"on":68,"do":{"length":4294967295}}]})", -1000},
                    Fault{"Truncated", R"({"rules":[{"on":68,"do":{"truncate":6}}]})", -1000},
                    Fault{"HalfHeader", R"({"rules":[{"on":68,"do":{"garbage_hex":"A1B200"}}]})", -2002},
                    Fault{"NoBody", R"({"rules":[{"on":68,"do":{"body":""}}]})", -6000},
                    Fault{"NotJson", R"({"rules":[{"on":68,"do":{"body":"<html>"}}]})", -6000},
                    Fault{"NoErrorCode", R"({"rules":[{"on":68,"do":{"body":"{\"id\":4}"}}]})", -6000},
                    Fault{"NoId", R"({"rules":[{"on":68,"do":{"body":"{\"errorcode\":0}"}}]})", -6000},
                    Fault{"RefusedWithAccount", R"({"logic":1,"rules":[{"on":64,"do":{"errorcode":-17}}]})",
                          -17},
                    // The type of a reply to a submission is not looked at.
                    Fault{"AnyType", R"({"rules":[{"on":68,"do":{"type":4711}}]})", 0}),
    row_name<Fault>);

// A poll that fails is a poll without an answer yet.
INSTANTIATE_TEST_SUITE_P(
    Poll, BrokerFault,
    testing::Values(
        Fault{"NotYet", R"({"pending":3})", 0},
        Fault{"WrongType", R"({"rules":[{"on":66,"nth":1,"do":{"type":65}}]})", 0},
        Fault{"NoBody", R"({"rules":[{"on":66,"nth":1,"do":{"body":""}}]})", 0},
        Fault{"NotJson", R"({"rules":[{"on":66,"nth":1,"do":{"body":"{{"}}]})", 0},
        Fault{"NoId", R"({"rules":[{"on":66,"nth":1,"do":{"body":"{\"errorcode\":0,\"response\":\"\"}"}}]})",
              0},
        Fault{"NoErrorCode", R"({"rules":[{"on":66,"nth":1,"do":{"body":"{\"id\":1}"}}]})", 0},
        Fault{"NoResponse", R"({"rules":[{"on":66,"nth":1,"do":{"body":"{\"id\":1,\"errorcode\":0}"}}]})", 0},
        Fault{"SilentOnce", R"({"logic":1,"rules":[{"on":66,"nth":1,"do":{"silence":true}}]})", 0},
        // The cloud's answer counts, whatever error the broker puts beside it.
        Fault{"AnswerWithError",
              R"({"rules":[{"on":66,"do":{"errorcode":-2,"answer":"{\"error_code\":-20299}"}}]})", -20299},
        Fault{"ClosedWithAccount", R"({"logic":1,"rules":[{"on":66,"do":{"close":true}}]})", -3002}),
    row_name<Fault>);

INSTANTIATE_TEST_SUITE_P(Notify, BrokerFault,
                         testing::Values(Fault{"Refused", R"({"rules":[{"on":80,"do":{"errorcode":-3}}]})",
                                               0},
                                         Fault{"Silent", R"({"rules":[{"on":80,"do":{"silence":true}}]})", 0},
                                         Fault{"Closed", R"({"rules":[{"on":80,"do":{"close":true}}]})", 0}),
                         row_name<Fault>);

INSTANTIATE_TEST_SUITE_P(
    Cloud, BrokerFault,
    testing::Values(
        Fault{"RefusedByNumber", R"({"rules":[{"on":"request","do":{"cloud_error":-20202}}]})", -20202},
        Fault{"RefusedByText",
              R"({"rules":[{"on":"request","do":{"answer":"{\"error_code\":\"-20202\"}"}}]})", -20202},
        Fault{"NotJson", R"({"rules":[{"on":"request","do":{"answer":"oops"}}]})", -1},
        Fault{"Empty", R"({"rules":[{"on":"request","do":{"answer":""}}]})", -1},
        Fault{"NoErrorCode", R"({"rules":[{"on":"request","do":{"answer":"{\"result\":{}}"}}]})", -1},
        Fault{"OtherCaseOfKey", R"({"rules":[{"on":"request","do":{"answer":"{\"Error_Code\":0}"}}]})", -1},
        // What is no number is no success.
        Fault{"Null", R"({"rules":[{"on":"request","do":{"answer":"{\"error_code\":null}"}}]})", -1},
        Fault{"True", R"({"rules":[{"on":"request","do":{"answer":"{\"error_code\":true}"}}]})", -1},
        Fault{"Infinite", R"({"rules":[{"on":"request","do":{"answer":"{\"error_code\":1e999}"}}]})", -1},
        Fault{"BeyondItsBits",
              R"({"rules":[{"on":"request","do":{"answer":"{\"error_code\":4294967296}"}}]})", 2147483647},
        Fault{"LastOfTwoCounts",
              R"({"rules":[{"on":"request","do":{"answer":"{\"error_code\":5,\"error_code\":0}"}}]})", 0},
        Fault{"NulInEscape",
              R"({"rules":[{"on":"request","do":{"answer":"{\"error_code\":-9,\"msg\":\"a\\u0000b\"}"}}]})",
              -9},
        Fault{"DeepNesting", R"({"rules":[{"on":"request","do":{"answer":"[[[[[[[[[[[[[[[[[[[["}}]})", -1}),
    row_name<Fault>);

TEST(Bind, WithoutAccountIsSubmittedThreeTimes) {
    Device device(json{{"pending", -1}});
    const auto start = steady_clock::now();
    EXPECT_EQ(printed(device, bind_arguments(device)), "-3002\n");
    EXPECT_GE(steady_clock::now() - start, milliseconds(3 * 11 * 500));
    EXPECT_EQ(requests(device).size(), 3U);
    EXPECT_EQ(device.journal().select(has({{"from", "client"}, {"type", emulator::kPoll}})).size(), 33U);
}

TEST(Bind, WithAccountWaitsByTheClock) {
    Device device(json{{"logic", 1}, {"pending", -1}});
    const auto start = steady_clock::now();
    EXPECT_EQ(printed(device, bind_arguments(device)), "-3002\n");
    EXPECT_GE(steady_clock::now() - start, milliseconds(5000));
    EXPECT_EQ(requests(device).size(), 1U);
}

TEST(Bind, PasswordEncryptedByOpensslBinds) {
    Device device;
    const auto cipher =
        device.run({"sh", "-c",
                    "cloud_rsa public >/tmp/key.pem && printf Secret-1 | openssl pkeyutl -encrypt "
                    "-pubin -inkey /tmp/key.pem | openssl base64 -A"});
    ASSERT_EQ(cipher.status, 0) << cipher.err;
    EXPECT_EQ(printed(device, {"bind", kOwner, cipher.out}), "0\n");
    EXPECT_EQ(device.store("account").at("password"), cipher.out);
}

TEST(Bind, PasswordThatDoesNotDecryptSendsNothing) {
    Device device;
    std::string foreign = device.encrypt(kOwnerPassword);
    foreign[5] = foreign[5] == 'A' ? 'B' : 'A';
    for (const std::string &password :
         {std::string(), std::string("Secret-1"), foreign, std::string(100000, 'A')}) {
        device.journal().clear();
        EXPECT_EQ(printed(device, {"bind", kOwner, password}), "-1\n");
        EXPECT_EQ(file("/tmp/cloud.error"), "-1\n");
        expect_console(device, "]Format request message failed.");
        EXPECT_THAT(
            console(device),
            testing::MatchesRegex("\\[error\\]\\[_format_bind_msg_req:[0-9]+\\]Decrypt password failed.\n"
                                  "\\[error\\]\\[_do_message:[0-9]+\\]Format request message failed.\n"));
        EXPECT_TRUE(device.journal().of_kind("connect").empty());
    }
}

// The cloud has agreed, so the command has succeeded; the console tells of the rest.
TEST(Bind, StoreThatFailsIsLoggedAndSurvived) {
    Device device;
    write_file("/tmp/not-a-store", std::string(4096, 'x'));
    emulator::RunOptions options;
    options.environment = {{"CLOUD_STORE_FILE", "/tmp/not-a-store"}};
    EXPECT_EQ(printed(device, bind_arguments(device), options), "0\n");
    expect_console(device, "wrpOpGrpDo fail.");
    EXPECT_EQ(printed(device, {"getBindStatus"}, options), "0\n");
    EXPECT_EQ(file("/tmp/not-a-store"), std::string(4096, 'x'));
}

TEST(Bind, HostileNamesAreCarriedAsTheyAre) {
    Device device(answering(R"({"error_code":-20201,"msg":"$(touch /tmp/pwned) `touch /tmp/pwned` %s%n"})"));
    const std::string cipher = device.encrypt(kOwnerPassword);
    for (const std::string &name :
         {std::string("a\"b\\c'd"), std::string("$(touch /tmp/pwned)"), std::string("`touch /tmp/pwned`"),
          std::string("a;touch /tmp/pwned\n\t"), std::string("%s%n%99999d"), std::string(100000, 'n')}) {
        device.journal().clear();
        EXPECT_EQ(printed(device, {"bind", name, cipher}), "-20201\n");
        ASSERT_EQ(requests(device).size(), 1U);
        EXPECT_EQ(json::parse(requests(device)[0]).at("params").at("cloudUserName"), name);
    }
    EXPECT_EQ(file("/tmp/pwned"), "absent");
}

TEST(Bind, InvalidUtf8IsNoReasonToFail) {
    Device device(json::parse(R"({"rules":[{"on":68,"do":{"body":"{\"errorcode\":-8}"}}]})"));
    EXPECT_EQ(printed(device, {"bind", "caf\xE9\xFF@example.com", device.encrypt(kOwnerPassword)}), "-8\n");
}

TEST(Bind, DeviceIdentityMustBeReadable) {
    struct Row {
        const char *name;
        const char *document;  // null: no file
        const char *printed;
        std::string devid;
    };
    const std::string longId(100, 'd');
    const std::string longDocument = R"({"devid":")" + longId + R"("})";
    const std::string oversize = R"({"devid":"x","filler":")" + std::string(200 << 10, 'f') + R"("})";
    for (const Row &row :
         {Row{"absent", nullptr, "-1\n", ""}, Row{"empty", "", "-1\n", ""},
          Row{"not JSON", "devid=5", "-1\n", ""}, Row{"too long", oversize.c_str(), "-1\n", ""},
          Row{"number", R"({"devid":5})", "-20301\n", ""},
          Row{"other case", R"({"DEVID":"x"})", "-20301\n", ""},
          Row{"cut to its field", longDocument.c_str(), "-20301\n", longId.substr(0, 63)}}) {
        SCOPED_TRACE(row.name);
        Device device;
        unlink("/tmp/device.info");
        if (row.document != nullptr) {
            write_file("/tmp/device.info", row.document);
        }
        EXPECT_EQ(printed(device, bind_arguments(device)), row.printed);
        if (std::string_view(row.printed) != "-1\n") {
            ASSERT_EQ(requests(device).size(), 1U);
            EXPECT_EQ(json::parse(requests(device)[0]).at("params").at("deviceId"), row.devid);
        }
    }
}

}  // namespace
