// The device as a whole.
#include "device.h"

#include <gmock/gmock.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "emulator_support.h"

namespace emulator {
namespace {

using testing::ElementsAre;

TEST(DeviceTest, RecordsScriptsAndConsoleBeforeTheRunReturns) {
    Device device;
    const auto run = device.run(
        {"sh", "-c",
         "/usr/bin/dropbreload & sh /usr/bin/deleteToken.sh '72 00' \"'\" & "
         "echo one > /dev/console; printf 'two\\n\\nthree \\377\\n' > /dev/console; echo out; exit 3"});
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.out, "out\n");
    EXPECT_THAT(
        device.journal().of_kind("script"),
        testing::UnorderedElementsAre(holds({{"name", "dropbreload"}, {"arguments", json::array()}}),
                                      holds({{"name", "deleteToken.sh"}, {"arguments", {"72 00", "'"}}})));
    EXPECT_THAT(
        device.journal().of_kind("console"),
        ElementsAre(holds({{"text", "one"}}), holds({{"text", "two"}}), holds({{"text", "three \xFF"}})));
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

}  // namespace
}  // namespace emulator
