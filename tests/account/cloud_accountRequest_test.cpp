// What each account command asks for and prints, byte for byte, and what it makes of its arguments.
#include <sys/stat.h>
#include <unistd.h>

#include "account_support.h"

namespace {

using namespace account;

struct Exchange {
    const char *name;
    std::vector<std::string> arguments;  // "<cipher>" stands for the owner's encrypted password
    const char *request;                 // null: none is sent
    const char *answer;
    const char *printed;
};

class AccountRequest : public testing::TestWithParam<Exchange> {};

TEST_P(AccountRequest, SendsExactlyThisAndPrintsThat) {
    Device device(answering(GetParam().answer));
    set_store(device, "account", {{"userName", "stored@example.com"}, {"password", "c3RvcmVk"}});
    std::vector<std::string> arguments = GetParam().arguments;
    for (std::string &argument : arguments) {
        argument = argument == "<cipher>" ? device.encrypt(kOwnerPassword) : argument;
    }
    EXPECT_EQ(printed(device, arguments), GetParam().printed) << device.journal().text();
    EXPECT_EQ(file("/tmp/cloud.error"), GetParam().printed);
    const std::vector<std::string> expected = GetParam().request == nullptr
                                                  ? std::vector<std::string>{}
                                                  : std::vector<std::string>{GetParam().request};
    EXPECT_EQ(requests(device), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, AccountRequest,
    testing::Values(
        Exchange{"Bind",
                 {"bind", "al\"ice", "<cipher>"},
                 R"({"method":"bindDevice","params":{"deviceId":"8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012",)"
                 R"("cloudUserName":"al\"ice","cloudPassword":"Secret-1"}})",
                 kGood,
                 "0\n"},
        Exchange{"TmpBind",
                 {"tmp_bind", "YWxpY2VAZXhhbXBsZS5jb20=", "U2VjcmV0LTE="},
                 R"({"method":"bindDevice","params":{"deviceId":"8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012",)"
                 R"("cloudUserName":"alice@example.com","cloudPassword":"Secret-1"}})",
                 kGood,
                 "0\n"},
        Exchange{
            "Unbind",
            {"unbind"},
            R"({"method":"unbindDevice","params":{"deviceId":"8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012",)"
            R"("cloudUserName":"stored@example.com"}})",
            kGood,
            "0\n"},
        Exchange{
            "UnbindNamed",
            {"unbind", "x"},
            R"({"method":"unbindDevice","params":{"deviceId":"8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012",)"
            R"("cloudUserName":"x"}})",
            kGood,
            "0\n"},
        Exchange{
            "UnbindEmptyName",
            {"unbind", ""},
            R"({"method":"unbindDevice","params":{"deviceId":"8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012",)"
            R"("cloudUserName":"stored@example.com"}})",
            kGood,
            "0\n"},
        Exchange{
            "TmpUnbind",
            {"tmp_unbind"},
            R"({"method":"unbindDevice","params":{"deviceId":"8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012",)"
            R"("cloudUserName":"stored@example.com"}})",
            R"({"error_code":"-20304"})",
            "-20304\n"},
        Exchange{"Login",
                 {"login", "bob@example.com", "<cipher>"},
                 R"({"method":"deviceAccountLogin","params":{"deviceId":)"
                 R"("8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012","cloudUserName":"bob@example.com",)"
                 R"("cloudPassword":"Secret-1"}})",
                 R"({"error_code":0,"result":{"role":1}})",
                 "0\n"},
        Exchange{"Alias",
                 {"alias", "S2l0Y2hlbg=="},
                 R"({"method":"updateAlias","params":{"deviceId":"8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012",)"
                 R"("alias":"Kitchen"}})",
                 kGood,
                 "0\n"},
        Exchange{"RemoveUser",
                 {"rmuser", "alice@example.com", "bob@example.com"},
                 R"({"method":"removeDeviceUser","params":{"deviceId":)"
                 R"("8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012","ownerAccount":"alice@example.com",)"
                 R"("userAccount":"bob@example.com"}})",
                 R"({"error_code":-20305,"msg":"no"})",
                 "-20305\n"},
        Exchange{"Online", {"online"}, R"({"method":"a"})", R"({"error_code":-20103})", "0\n"},
        Exchange{
            "OnlineWithACodeOfAnyKind", {"online"}, R"({"method":"a"})", R"({"error_code":null})", "0\n"},
        Exchange{"OnlineWithoutCode", {"online"}, R"({"method":"a"})", R"({"result":0})", "-1\n"},
        Exchange{"Token",
                 {"getDevToken"},
                 R"({"method":"getDeviceTokenWithServices","params":{"deviceId":)"
                 R"("8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012","serviceIds":["eweb"]}})",
                 R"({"error_code":0,"result":{"deviceToken":"t","expiresIn":7,"serviceUrls":{"eweb":"u"}}})",
                 "0\n"},
        Exchange{"TokenRefused",
                 {"getDevToken"},
                 R"({"method":"getDeviceTokenWithServices","params":{"deviceId":)"
                 R"("8012E7A1B2C3D4E5F60718293A4B5C6D7E8F9012","serviceIds":["eweb"]}})",
                 R"({"error_code":-20303})",
                 "-20303\n"},
        Exchange{"PassthroughObject",
                 {"passthrough", "getWeather", "eyJjaXR5IjoiWCIsIm4iOlsxLDIuNV19"},
                 R"({"method":"getWeather","params":{"city":"X","n":[1,2.5]}})",
                 R"({"error_code":-5})",
                 "0\n"},
        Exchange{
            "PassthroughNumber", {"passthrough", "m", "NQ=="}, R"({"method":"m","params":5})", "[]", "0\n"},
        Exchange{"PassthroughAnswerNotJson",
                 {"passthrough", "m", "NQ=="},
                 R"({"method":"m","params":5})",
                 "oops",
                 "-1\n"},
        Exchange{"PassthroughNotJson", {"passthrough", "m", "eyJh"}, nullptr, kGood, "-1\n"},
        Exchange{"PassthroughNotBase64", {"passthrough", "m", "{}"}, nullptr, kGood, "-1\n"}),
    row_name<Exchange>);

// Arguments in Base64: what fits is sent as far as it decodes, what is too long is not sent at all.
TEST(AccountArguments, Base64IsBoundedNotCut) {
    struct Row {
        const char *name;
        std::string alias;
        bool sent;
        std::string decoded;
    };
    Device device(answering(kGood));
    for (const Row &row :
         {Row{"empty", "", true, ""}, Row{"outer white space", "  S2l0\n", true, "Kit"},
          Row{"inner white space", "S2l0 2hlbg==", true, "Kit"}, Row{"bad length", "S2l0Y", true, ""},
          Row{"fault after a good group", "S2l0*AAA", true, "Kit"},
          Row{"fault inside a group", "S2l0QQ=A", true, "KitA"},
          Row{"exactly the field", base64(std::string(64, 'k')), true, std::string(64, 'k')},
          Row{"one more", base64(std::string(65, 'k')), false, ""},
          Row{"many more", base64(std::string(90000, 'k')), false, ""}}) {
        SCOPED_TRACE(row.name);
        device.journal().clear();
        set_store(device, "device-info", {{"kind", 7}, {"alias", "Hall"}});
        EXPECT_EQ(printed(device, {"alias", row.alias}), row.sent ? "0\n" : "-1\n");
        ASSERT_EQ(requests(device).size(), row.sent ? 1U : 0U);
        if (row.sent) {
            EXPECT_EQ(json::parse(requests(device)[0]).at("params").at("alias"), row.decoded);
        } else {
            expect_console(device, "Create json object failed.");
        }
        EXPECT_EQ(device.store("device-info"),
                  (json{{"kind", 7}, {"alias", row.sent ? row.decoded : std::string("Hall")}}));
    }
    EXPECT_EQ(printed(device, {"tmp_bind", base64(std::string(128, 'u')), base64(std::string(512, 'p'))}),
              "0\n");
    // Too long for the key as well: then the plain password is kept, and the field holds it whole.
    EXPECT_EQ(device.store("account").at("password"), std::string(512, 'p'));
    EXPECT_EQ(device.store("account").at("userName"), std::string(128, 'u'));
    EXPECT_EQ(printed(device, {"tmp_bind", base64(std::string(129, 'u')), base64("p")}), "-1\n");
    EXPECT_EQ(printed(device, {"tmp_bind", base64("u"), base64(std::string(513, 'p'))}), "-1\n");
    const std::string text = "\"" + std::string(2097, 'x') + "\"";
    EXPECT_EQ(printed(device, {"passthrough", "m", base64(text)}), "0\n");
    EXPECT_EQ(printed(device, {"passthrough", "m", base64(text + " ")}), "-1\n");
}

TEST(AccountArguments, UnbindWithoutAnAccountSendsNothing) {
    Device device;
    EXPECT_EQ(printed(device, {"unbind"}), "-1\n");
    EXPECT_EQ(file("/tmp/cloud.error"), "-1\n");
    EXPECT_TRUE(sent(device).empty());
}

// Who reads it meanwhile sees the old result or the new one.
TEST(AccountArguments, ResultFileIsReplacedAsAWhole) {
    Device device;
    write_file("/tmp/cloud.error", "-20303\n");
    std::ifstream reader("/tmp/cloud.error");
    EXPECT_EQ(printed(device, {"unbind"}), "-1\n");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(reader), {}), "-20303\n");
    EXPECT_EQ(file("/tmp/cloud.error"), "-1\n");
}

// A pipe in the place of a file holds nothing up.
TEST(AccountArguments, PipesHoldNothingUp) {
    Device device;
    unlink("/tmp/device.info");
    ASSERT_EQ(mkfifo("/tmp/device.info", 0666), 0);
    ASSERT_EQ(mkfifo("/tmp/cloud.error", 0666), 0);
    EXPECT_EQ(printed(device, {"alias", "S2l0"}), "-1\n");
    EXPECT_EQ(file("/tmp/cloud.error"), "-1\n");
}

}  // namespace
