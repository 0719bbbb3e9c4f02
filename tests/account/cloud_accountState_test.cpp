// What the account commands change on the device: records, files, mode.
#include <cstdlib>

#include "account_support.h"
#include "wrapper.h"

namespace {

using namespace account;

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

}  // namespace
