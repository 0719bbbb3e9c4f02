// Every account command on the emulated device: its request, its result, and the state after it.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "program.h"
#include "wrapper.h"

namespace {

using namespace program;

const std::string kDevice = emulator::kDeviceId;
const std::string kOther = "bob@example.com";

std::string base64(const std::string &text) {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < text.size(); i += 3) {
        unsigned group = 0;
        for (size_t k = 0; k < 3; ++k) {
            group = group << 8U | (i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0U);
        }
        for (size_t k = 0; k < 4; ++k) {
            out += i + k <= text.size() ? kAlphabet[group >> (18 - 6 * k) & 63U] : '=';
        }
    }
    return out;
}

void set_store(Device &device, const std::string &name, const json &record) {
    const auto run = device.run({"cloud_store", "set", name, record.dump()});
    ASSERT_EQ(run.status, 0) << run.err;
}

/// A device that its owner has bound; the broker in account mode, the journal empty.
void bind_owner(Device &device) {
    ASSERT_EQ(printed(device, {"bind", kOwner, device.encrypt(kOwnerPassword)}), "0\n")
        << device.journal().text();
    wait_for_script(device, "dropbreload");
    device.journal().clear();
}

/// All that the commands keep about the account, as one value.
json account_state(Device &device) {
    return {{"account", device.store("account")},
            {"status", device.store("device-status")},
            {"login", file("/tmp/cloud.login")},
            {"mode", device.broker().logic()}};
}

// Requests and results ------------------------------------------------------------------------------

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

constexpr char kGood[] = R"({"error_code":0,"result":{}})";

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

// State ---------------------------------------------------------------------------------------------

TEST(AccountState, WalksFromUnboundToBoundAndBack) {
    Device device;
    const json unbound = {{"account", {{"count", 0}, {"userName", ""}, {"password", ""}}},
                          {"status", {{"bind_status", 0}, {"need_unbind", 0}}},
                          {"login", "0\n"},
                          {"mode", 0}};
    for (const char *unbind : {"tmp_unbind", "unbind"}) {
        SCOPED_TRACE(unbind);
        ASSERT_EQ(printed(device, {"tmp_bind", base64(kOwner), base64(kOwnerPassword)}), "0\n");
        const json bound = account_state(device);
        EXPECT_EQ(bound.at("account").at("userName"), kOwner);
        EXPECT_EQ(bound.at("status").at("bind_status"), 1);
        EXPECT_EQ(bound.at("mode"), 1);
        const auto plain = device.run({"cloud_rsa", "decrypt", bound.at("account").at("password")});
        EXPECT_EQ(plain.out.substr(0, kOwnerPassword.size()), kOwnerPassword);

        // Neither a refusal of the cloud nor a broken link changes anything.
        EXPECT_EQ(printed(device, {"unbind", kOther}), "-20304\n");
        EXPECT_EQ(printed(device, {"bind", kOwner, device.encrypt("wrong")}), "-20202\n");
        EXPECT_EQ(printed(device, {"tmp_bind", base64(kOther), base64("Secret-2")}), "-20302\n");
        device.broker().stop();
        EXPECT_EQ(printed(device, {unbind}), "-2001\n");
        device.broker().start();
        EXPECT_EQ(account_state(device), bound);
        EXPECT_TRUE(scripts(device).empty());  // the app's variants start nothing

        EXPECT_EQ(printed(device, {unbind}), "0\n");
        EXPECT_EQ(account_state(device), unbound);
    }
    wait_for_script(device, "dropbreload");
    EXPECT_EQ(scripts(device).size(), 1U);
}

TEST(AccountState, RecordsAreLaidOutAsTheDevicesProgramsReadThem) {
    Device device;
    const std::string cipher = device.encrypt(kOwnerPassword);
    ASSERT_EQ(printed(device, {"bind", kOwner, cipher}), "0\n");
    ASSERT_EQ(printed(device, {"login", "Alice@Example.com", cipher}), "0\n");
    ASSERT_EQ(printed(device, {"alias", base64("Kitchen")}), "0\n");
    struct Row {
        uintptr_t object;
        size_t size;
        std::string expected;  // less the zeros at its end
    };
    std::string account("\1\0\0\0", 4);
    account += kOwner;
    account.resize(4 + 129);
    account += cipher;
    for (const Row &row :
         {Row{0x120002, 130, std::string(1, '\0') + "Alice@Example.com"},
          Row{0x120008, 2, std::string(1, '\1')}, Row{0x12000c, 66, std::string(1, '\0') + "Kitchen"},
          Row{0x12000f, 648, account}}) {
        std::string record(row.size, '?');
        WrpOpEntry entry{row.object, 0, 0, reinterpret_cast<uintptr_t>(record.data()), row.size};
        ASSERT_EQ(wrpOpGrpDo(&entry, sizeof entry, WRP_READ), 0) << row.object;
        if (row.object == 0x12000f && getenv("CLOUD_MSG_BYTE_ORDER") != nullptr) {
            record[0] = '\1';  // its count is in the order of the device's processor
            record[3] = '\0';
        }
        EXPECT_EQ(record, row.expected + std::string(row.size - row.expected.size(), '\0')) << row.object;
    }
}

struct LoginRow {
    const char *name;
    const char *role;
    const char *user;
    const char *password;
    const char *storedUser;
    const char *storedPassword;  // "!": does not decrypt
    bool replaced;
};

class AccountLogin : public testing::TestWithParam<LoginRow> {};

TEST_P(AccountLogin, ReplacesTheAccountOnlyWhenTheOwnerChanged) {
    const LoginRow &row = GetParam();
    Device device(answering(std::string(R"({"error_code":0,"result":{"role":)") + row.role + "}}"));
    const std::string given = device.encrypt(row.password);
    const std::string stored =
        std::string(row.storedPassword) == "!" ? std::string("broken") : device.encrypt(row.storedPassword);
    json before = {{"count", 0}, {"userName", ""}, {"password", ""}};
    if (*row.storedUser != '\0') {
        set_store(device, "account", {{"userName", row.storedUser}, {"password", stored}});
        before = {{"count", 1}, {"userName", row.storedUser}, {"password", stored}};
    }
    EXPECT_EQ(printed(device, {"login", row.user, given}), "0\n");
    EXPECT_EQ(file("/tmp/cloud.login"), "1\n");
    EXPECT_EQ(device.store("login"), (json{{"role", atoi(row.role) % 256}, {"userName", row.user}}));
    if (!row.replaced) {
        EXPECT_EQ(device.store("account"), before);
        EXPECT_TRUE(scripts(device).empty());
        return;
    }
    wait_for_script(device, "dropbreload");
    EXPECT_EQ(device.store("account"), (json{{"count", 1}, {"userName", row.user}, {"password", given}}));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AccountLogin,
    testing::Values(LoginRow{"OwnerSameAll", "0", "alice", "one", "alice", "one", false},
                    LoginRow{"OwnerOtherCase", "0", "ALICE", "one", "alice", "one", false},
                    LoginRow{"OwnerNewPassword", "0", "alice", "two", "alice", "one", true},
                    LoginRow{"OwnerOtherCaseNewPassword", "0", "Alice", "two", "alice", "one", true},
                    LoginRow{"OwnerOtherName", "0", "bob", "one", "alice", "one", true},
                    LoginRow{"OwnerLongerName", "0", "alice2", "one", "alice", "one", true},
                    LoginRow{"OwnerNothingStored", "0", "alice", "one", "", "", false},
                    LoginRow{"OwnerStoredBroken", "0", "alice", "one", "alice", "!", false},
                    LoginRow{"UserNewPassword", "1", "alice", "two", "alice", "one", false},
                    LoginRow{"UserOtherName", "1", "bob", "one", "alice", "one", false},
                    LoginRow{"RoleAsText", "\"0\"", "bob", "one", "alice", "one", true},
                    LoginRow{"RoleBeyondAByte", "257", "bob", "one", "alice", "one", false}),
    row_name<LoginRow>);

TEST(AccountLoginAnswer, LackingItsRoleStoresNothing) {
    for (const auto &[answer, message] :
         {std::pair{R"({"error_code":0})", "]Get result failed."},
          std::pair{R"({"error_code":0,"result":{}})", "]Get role failed."},
          std::pair{R"({"error_code":0,"result":{"role":null}})", "]Get role failed."},
          std::pair{R"({"error_code":0,"result":"role"})", "]Get role failed."}}) {
        Device device(answering(answer));
        EXPECT_EQ(printed(device, {"login", "alice", device.encrypt("one")}), "-1\n");
        expect_console(device, std::string("[error][_parse_login_result:"));
        expect_console(device, message);
        EXPECT_EQ(device.store("login").at("userName"), "");
        EXPECT_EQ(file("/tmp/cloud.login"), "absent");
    }
}

// Token ---------------------------------------------------------------------------------------------

struct TokenRow {
    const char *name;
    const char *result;
    const char *message;   // empty: complete
    const char *token;     // the file
    const char *argument;  // of the script
};

class AccountToken : public testing::TestWithParam<TokenRow> {};

TEST_P(AccountToken, IsKeptAndItsDeletionStarted) {
    const TokenRow &row = GetParam();
    Device device(answering(std::string(R"({"error_code":0,"result":)") + row.result + "}"));
    const bool complete = *row.message == '\0';
    EXPECT_EQ(printed(device, {"getDevToken"}), complete ? "0\n" : "-1\n");
    EXPECT_EQ(file("/tmp/cloud.token"), row.token);
    EXPECT_EQ(file("/tmp/pwned"), "absent");
    if (!complete) {
        expect_console(device, std::string("[error][_parse_token_result:"));
        expect_console(device, row.message);
        EXPECT_TRUE(scripts(device).empty());
        return;
    }
    wait_for_script(device, "deleteToken.sh");
    EXPECT_EQ(scripts(device), std::vector<std::string>{std::string("deleteToken.sh") + row.argument});
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AccountToken,
    testing::Values(
        TokenRow{"Number", R"({"deviceToken":"abc","expiresIn":7200,"serviceUrls":{"eweb":"https://x/y"}})",
                 "", "abc\nhttps://x/y\n", " [7200]"},
        TokenRow{"LargeNumber",
                 R"({"deviceToken":"a","expiresIn":1000000000000000,"serviceUrls":{"eweb":"u"}})", "",
                 "a\nu\n", " [1000000000000000]"},
        TokenRow{"Text", R"({"deviceToken":"a","expiresIn":"3600","serviceUrls":{"eweb":"u"}})", "", "a\nu\n",
                 " [3600]"},
        TokenRow{"Command",
                 R"({"deviceToken":"a","expiresIn":"1;touch /tmp/pwned","serviceUrls":{"eweb":"u"}})", "",
                 "a\nu\n", " [1;touch /tmp/pwned]"},
        TokenRow{
            "Substitution",
            R"({"deviceToken":"a","expiresIn":"'$(touch /tmp/pwned)`id`\"\n","serviceUrls":{"eweb":"u"}})",
            "", "a\nu\n", " ['$(touch /tmp/pwned)`id`\"\n]"},
        TokenRow{"Empty", R"({"deviceToken":"a","expiresIn":"","serviceUrls":{"eweb":"u"}})", "", "a\nu\n",
                 ""},
        TokenRow{"NoToken", R"({"expiresIn":1,"serviceUrls":{"eweb":"u"}})", "]Token is NULL", "absent", ""},
        TokenRow{"NoExpiry", R"({"deviceToken":"a","serviceUrls":{"eweb":"u"}})", "]Expires is NULL",
                 "absent", ""},
        TokenRow{"NoUrls", R"({"deviceToken":"a","expiresIn":1})", "]Server URL is NULL", "absent", ""},
        TokenRow{"NoService", R"({"deviceToken":"a","expiresIn":1,"serviceUrls":{"EWEB":"u"}})",
                 "]Server ID is NULL", "absent", ""}),
    row_name<TokenRow>);

TEST(AccountTokenLimits, LongTextsAreCutOrNotRun) {
    const std::string longText(2000, 'x');
    Device device(answering(R"({"error_code":0,"result":{"deviceToken":")" + longText + R"(","expiresIn":")" +
                            longText + R"(","serviceUrls":{"eweb":"u"}}})"));
    EXPECT_EQ(printed(device, {"getDevToken"}), "0\n");
    EXPECT_EQ(file("/tmp/cloud.token"), std::string(511, 'x') + "\n");
    EXPECT_TRUE(scripts(device).empty());
}

// Passthrough cache ---------------------------------------------------------------------------------

TEST(AccountPassthrough, CachesTheAnswerUnderTheMethodsName) {
    const std::string answer = R"({"error_code":-20103, "msg":"no such thing"})";
    Device device(answering(answer));
    EXPECT_EQ(printed(device, {"passthrough", "getWeather", "e30="}), "0\n");
    EXPECT_EQ(file("/tmp/cloud_data_cache/getWeather"), answer);
    write_file("/tmp/victim", "untouched");
    for (const std::string &method : {std::string("../victim"), std::string("/tmp/victim"), std::string(".."),
                                      std::string("."), std::string(), std::string("a/b")}) {
        EXPECT_EQ(printed(device, {"passthrough", method, "e30="}), "0\n") << method;
    }
    EXPECT_EQ(file("/tmp/victim"), "untouched");
    const std::string longMethod(300, 'm');
    EXPECT_EQ(printed(device, {"passthrough", longMethod, "e30="}), "0\n");
    EXPECT_EQ(file("/tmp/cloud_data_cache/" + longMethod.substr(0, 255 - 22)), answer);
    const auto listing = device.run({"ls", "-A", "/tmp/cloud_data_cache"});
    EXPECT_EQ(listing.out, "getWeather\n" + longMethod.substr(0, 233) + "\n");
}

// Local password file -------------------------------------------------------------------------------

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

// Status, mode, factory, kick-off -------------------------------------------------------------------

TEST(AccountStatus, OnlyAStoredPasswordMakesAnAccount) {
    Device device(json{{"logic", 7}});
    EXPECT_EQ(printed(device, {"getLogicStatus"}), "7\n");
    set_store(device, "account", {{"userName", "alice"}, {"password", ""}});
    EXPECT_EQ(printed(device, {"getBindStatus"}), "0\n");
    EXPECT_EQ(printed(device, {"setLogicStatus"}), "0\n");
    EXPECT_EQ(device.broker().logic(), 0);
    set_store(device, "account", {{"userName", "alice"}, {"password", "p"}});
    EXPECT_EQ(printed(device, {"getBindStatus"}), "1\n");
    EXPECT_EQ(printed(device, {"setLogicStatus"}), "0\n");
    EXPECT_EQ(device.broker().logic(), 1);
    EXPECT_EQ(printed(device, {"getLogicStatus"}), "1\n");
    EXPECT_EQ(file("/tmp/cloud.error"), "absent");
    device.broker().stop();
    EXPECT_EQ(printed(device, {"getLogicStatus"}), "-2001\n");
    EXPECT_EQ(printed(device, {"setLogicStatus"}), "0\n");
}

TEST(AccountFactory, ReportsTheUnbindThatIsStillOwed) {
    Device device;
    EXPECT_EQ(printed(device, {"factory"}), "0\n");  // nothing bound: nothing to do
    EXPECT_TRUE(sent(device).empty());
    EXPECT_EQ(file("/tmp/factory.part"), "absent");
    EXPECT_EQ(file("/tmp/cloud.error"), "absent");

    bind_owner(device);
    device.broker().stop();
    EXPECT_EQ(printed(device, {"factory"}), "0\n");
    const json account = device.store("account");
    EXPECT_EQ(file("/tmp/factory.part"), "{\n\t\"username\":\t\"alice@example.com\",\n\t\"password\":\t" +
                                             account.at("password").dump() + ",\n\t\"need_unbind\":\t1\n}\n");
    EXPECT_EQ(file("/tmp/cloud.error"), "-2001\n");
    EXPECT_EQ(device.store("device-status"), (json{{"bind_status", 1}, {"need_unbind", 0}}));

    unlink("/tmp/factory.part");
    device.broker().start();
    device.broker().set_logic(1);
    EXPECT_EQ(printed(device, {"factory"}), "0\n");
    EXPECT_EQ(file("/tmp/factory.part"), "absent");
    EXPECT_EQ(file("/tmp/cloud.error"), "0\n");
    EXPECT_EQ(printed(device, {"getBindStatus"}), "0\n");
}

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
    const auto is_datagram = has({{"kind", "datagram"}});
    device.journal().wait_for(
        [&, seen = 0](const json &record) mutable { return is_datagram(record) && ++seen == 3; });
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
