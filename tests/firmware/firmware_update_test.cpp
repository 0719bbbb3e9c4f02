// `update`, and the way of a device from one version to the next.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "firmware_support.h"
#include "namespace.h"

namespace {

using namespace firmware;
using emulator::Process;
using program::file;
using program::printed;
using program::write_file;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr size_t kPayload = 300001;
const std::string kUpgradeLock = "/tmp/cloud_up_img.lock";

json upgrade_info(Device &device) {
    return device.store("upgrade-info");
}

// What the platform finds, and what comes of it.
struct Refusal {
    const char *name;
    std::function<std::string(std::string)> image;  // what is downloaded, made of a good image
    const char *flash;
    const char *logged;
    bool info_kept;
};

class UpdateRefusal : public testing::TestWithParam<Refusal> {};

TEST_P(UpdateRefusal, EndsIn20001AndTheVersionStays) {
    Device device;
    offer(device, "http://localhost/fw.bin");
    put_status_file();
    const json before = upgrade_info(device);
    const std::string content = GetParam().image(image(device, kNewVersion, kPayload));
    if (!content.empty()) {
        write_file(kFinished, content);
    }
    setenv("CLOUD_FLASH_DIR", GetParam().flash, 1);
    EXPECT_THAT(watch({"update"}), ElementsAre("3 0", "20001 0", "start 0")) << device.journal().text();
    setenv("CLOUD_FLASH_DIR", emulator::kFlashPath, 1);
    device.settle();
    program::expect_console(device, GetParam().logged);
    program::expect_console(device, "Verify image failed!");
    program::expect_console(device, "Failed to verify cloud firmware.");
    EXPECT_EQ(upgrade_info(device) == before, GetParam().info_kept);
    EXPECT_EQ(other_members(), R"({"first":[1,{"a":null}],"last":"x"})");
    EXPECT_FALSE(Device::restart_due());
    EXPECT_EQ(file("/tmp/softinfo"), emulator::kSoftwareVersion);
    EXPECT_EQ(file(kUpgradeLock), "absent");
}

const auto kAsItIs = [](std::string content) { return content; };

INSTANTIATE_TEST_SUITE_P(Images, UpdateRefusal,
                         testing::Values(Refusal{"None", [](const std::string &) { return std::string(); },
                                                 "/mnt", "check firmware failed, error = 1", true},
                                         Refusal{"Foreign", [](const std::string &) { return pattern(5000); },
                                                 "/mnt", "check firmware failed, error = 2", true},
                                         Refusal{"CutShort",
                                                 [](const std::string &good) {
                                                     return good.substr(0, good.size() - 1);
                                                 },
                                                 "/mnt", "check firmware failed, error = 4", true},
                                         Refusal{"OneBitWrong",
                                                 [](std::string good) {
                                                     good[good.size() / 2] ^= 1;
                                                     return good;
                                                 },
                                                 "/mnt", "check firmware failed, error = 6", true},
                                         Refusal{"GoodButTheFlashIsNot", kAsItIs, "/tmp/httpUploadFile.bin",
                                                 "cloud upgrading!!!", false}),
                         [](const auto &row) { return row.param.name; });

TEST(Update, WaitsForTheRestartWithoutUsingTheProcessor) {
    Device device;
    put_status_file();
    write_file(kFinished, image(device, kNewVersion, kPayload));
    Process update = device.start({"cloud_msg", "update"});
    program::expect_console(device, "Verify image ok, now will reboot...");
    // Asleep, and not once awake while another command runs. A process that polls never settles, and this
    // test runs into its time limit.
    const auto awoken = [&] {
        const std::string status = file("/proc/" + std::to_string(update.pid()) + "/status");
        return status.substr(status.find("voluntary_ctxt_switches"));
    };
    const auto asleep = [&] {
        return file("/proc/" + std::to_string(update.pid()) + "/stat").find(") S ") != std::string::npos;
    };
    for (std::string before; !asleep() || before != awoken();) {
        before = awoken();
        EXPECT_EQ(printed(device, {"getBindStatus"}), "0\n");
    }
    EXPECT_TRUE(update.running());
    EXPECT_THAT(file(kStatusFile), HasSubstr("\"fw_status\":\t3"));
    EXPECT_EQ(file(kUpgradeLock), "");
    device.await_restart();
    EXPECT_EQ(update.wait().signal, SIGKILL);
    EXPECT_EQ(file("/tmp/softinfo"), kNewVersion + "\n");
}

TEST(Update, LeavesALockOfAnotherAlone) {
    Device device;
    put_status_file();
    write_file(kUpgradeLock, "");
    EXPECT_THAT(watch({"update"}), testing::IsEmpty());
    device.settle();
    program::expect_console(device, "upgrade image from cloud in progress");
    EXPECT_EQ(file(kUpgradeLock), "");
}

TEST(Firmware, GoesFromVersionToVersion) {
    Device device;
    ImageServer server(device.journal());
    const std::string content = image(device, kNewVersion, kPayload);
    server.put("/fw.bin", content);
    server.set_rules(json::parse(R"([{"method":"GET","do":{"trickle":{"bytes":2000,"ms":1}}}])"));
    device.cloud().change({{"firmware", json::array({entry(kNewVersion, server.url("/fw.bin"))})}});
    put_status_file();
    EXPECT_EQ(printed(device, {"check"}), "0\n");
    EXPECT_EQ(upgrade_info(device).at("version"), kNewVersion);

    Process cut = device.start({"cloud_msg", "download"});
    std::error_code absent;
    while (std::filesystem::file_size(kPartial, absent) < kPayload / 3 || absent) {
        ASSERT_TRUE(cut.running());
    }
    cut.kill(SIGKILL);
    EXPECT_EQ(cut.wait().signal, SIGKILL);
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    EXPECT_EQ(file(kFinished), "absent") << "the lock of the killed run";
    unlink(kDownloadLock.c_str());
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    EXPECT_EQ(file(kFinished), content);

    Process update = device.start({"cloud_msg", "update"});
    device.await_restart();
    EXPECT_EQ(file("/tmp/softinfo"), kNewVersion + "\n");
    EXPECT_EQ(file(kFinished), "absent");
    EXPECT_EQ(file(kUpgradeLock), "absent");
    EXPECT_EQ(upgrade_info(device).at("url"), "");

    put_status_file();
    EXPECT_EQ(printed(device, {"check"}), "0\n");
    program::expect_console(device, "FwList is empty! Current firmware is up to date!");
    EXPECT_THAT(program::requests(device).back(), HasSubstr(R"("devFwCurrentVer":"1.0.7")"));
    EXPECT_THAT(file(kStatusFile), HasSubstr("\"fw_status\":\t5"));
}

}  // namespace
