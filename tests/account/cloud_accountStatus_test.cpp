// Status, mode and the report of a factory reset.
#include <unistd.h>

#include "account_support.h"

namespace {

using namespace account;

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

}  // namespace
