// What the account commands take from an answer: role, token, cache.
#include "account_support.h"

namespace {

using namespace account;

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

}  // namespace
