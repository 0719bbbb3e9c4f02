// The firmware modules by their functions: what no command reaches, or not alone.
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "cloud_api_wrap.h"
#include "cloud_checkFwVersion.h"
#include "cloud_cloudErrorHandler.h"
#include "cloud_downloadHandler.h"
#include "cloud_exchangeConfig.h"
#include "cloud_fwVersion.h"
#include "cloud_httpClient.h"
#include "cloud_localMsgHandler.h"
#include "cloud_notifyEventToCloud.h"
#include "cloud_requestTimeoutHandler.h"
#include "cloud_userConfig.h"
#include "firmware_support.h"
#include "kxcc.h"
#include "wrapper.h"

namespace {

bool l_no_memory = false;

}  // namespace

// The program's calls of calloc come here (linker option --wrap).
extern "C" {
void *__real_calloc(size_t count, size_t size);
void *__wrap_calloc(size_t count, size_t size) {
    return l_no_memory ? nullptr : __real_calloc(count, size);
}
}

namespace {

using namespace firmware;
using program::file;
using program::write_file;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// The library of this process may still hold a connection to the broker of an earlier device.
void connect_anew() {
    for (int i = 0; i < 3 && kxcc_get_link_status() < 0; ++i) {
    }
}

Strings events(Device &device) {
    Strings numbers;
    for (const json &record : device.journal().of_kind("event")) {
        numbers.push_back(record.at("event").dump());
    }
    return numbers;
}

TEST(Version, NewerIsDecidedByTheNumbers) {
    Device device;  // somebody must read the console
    struct Pair {
        std::string cmp;
        std::string cur;
        int newer;
    };
    const std::string digits(10000, '9');
    std::string hugeStamps = "1.0.0 ";
    hugeStamps.append(digits).append("Build.").append(digits);
    for (const Pair &pair : {Pair{"1.0.4 Build 7 Rel.1", "1.0.3 Build 9 Rel.9", 1},
                             {"1.0.3 Build 9 Rel.9", "1.0.4 Build 7 Rel.1", 0},
                             {"1.0.3 Build 20990101 Rel.99999", "1.0.3 Build 1 Rel.1", 0},
                             {"2.0.0 Build 1", "1.9.9 Build 1", 1},
                             {"1.9.9 Build 1", "2.0.0 Build 1", 0},
                             {"1.2.0 Build", "1.1.9 Build", 1},
                             {"1.1.9 Build", "1.2.0 Build", 0},
                             {"1.10.0 Build", "1.9.0 Build", 1},
                             {"1.0.7 ", "1.0.6 ", 1},            // no "Build"
                             {"1.0.7   Build 1", "1.0.7 x", 0},  // no point after it
                             {"1.0.7", "1.0.6 Build", 0},        // no blank
                             {"1.0.7 Build", "1.0.6", 0},
                             {"", "1.0.6 Build", 0},
                             {" ", " ", 0},
                             {"1 Build", "0.9.9 Build", 1},  // what is missing is 0
                             {"1.x.5 Build", "1.0.1 Build", 0},
                             {"-1.0.0 Build", "0.0.0 Build", 0},
                             {"4294967296 B", "2147483646 B", 1},  // kept to the largest number
                             {"99999999999 B", "4294967296 B", 0},
                             {digits + " Build", "1.0.0 Build", 1},
                             {hugeStamps, "1.0.0 Build.1", 0},
                             {std::string(10000, '.') + " ", std::string(10000, ' '), 0}}) {
        EXPECT_EQ(fwVerCmp(pair.cmp.c_str(), pair.cur.c_str()), pair.newer) << pair.cmp << " | " << pair.cur;
    }
    EXPECT_EQ(fwVerCmp(nullptr, "1.0.0 Build"), 0);
    EXPECT_EQ(fwVerCmp("1.0.0 Build", nullptr), 0);
}

TEST(Version, ItsNumbersFitOrFail) {
    Device device;  // somebody must read the console
    std::array<char, 6> room{};
    EXPECT_EQ(getDevFwVer("1.0.3 Build", room.data(), 6), 1);
    EXPECT_STREQ(room.data(), "1.0.3");
    room = {};
    for (const int length : {5, 1, 0, -1}) {
        EXPECT_EQ(getDevFwVer("1.0.3 Build", room.data(), length), 0);
    }
    EXPECT_EQ(getDevFwVer("1.0.3", room.data(), 6), 0);
    EXPECT_EQ(getDevFwVer(nullptr, room.data(), 6), 0);
    EXPECT_EQ(getDevFwVer("1.0.3 Build", nullptr, 6), 0);
    EXPECT_EQ(room[0], '\0');
    EXPECT_EQ(getDevFwVer(" Build", room.data(), 6), 1);
}

TEST(Status, IsWrittenInTheLibrarysLayout) {
    Device device;
    write_file(kStatusFile, R"({"fw_status":11,"web":"x","dwProgress":3,"FW_STATUS":[1]})");
    EXPECT_EQ(cloud_setFirmwareDownloadStatus(1, 37), 1);
    EXPECT_EQ(
        file(kStatusFile),
        "{\n\t\"web\":\t\"x\",\n\t\"FW_STATUS\":\t[1],\n\t\"fw_status\":\t1,\n\t\"dwProgress\":\t37\n}");
    device.settle();
    program::expect_console(device, "downloading: 37");
    EXPECT_EQ(cloud_setFirmwareUpgradeStart(4294967295U), 1);
    EXPECT_EQ(file(kStatusFile),
              "{\n\t\"web\":\t\"x\",\n\t\"FW_STATUS\":\t[1],\n\t\"fw_status\":\t1,\n"
              "\t\"dwProgress\":\t37,\n\t\"cloud_start\":\t4294967295\n}");
    struct stat status {};
    ASSERT_EQ(stat(kStatusFile.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0644U);
    for (const auto &name : std::filesystem::directory_iterator("/tmp")) {
        EXPECT_THAT(name.path().string(), Not(HasSubstr("cloud.info.")));
    }
}

TEST(Status, ADocumentThatCannotBeExtendedStaysAsItIs) {
    Device device;
    EXPECT_EQ(cloud_setFirmwareDownloadStatus(1, 1), 0);
    EXPECT_EQ(file(kStatusFile), "absent");
    device.settle();
    program::expect_console(device, "Error: open /tmp/cloud.info for read failed");
    ASSERT_EQ(mkfifo(kStatusFile.c_str(), 0600), 0);
    EXPECT_EQ(cloud_setFirmwareDownloadStatus(1, 1), 0);
    unlink(kStatusFile.c_str());
    const std::string tail = R"(","fw_status":11})";
    for (const std::string &text :
         {std::string(), std::string("{"), std::string("[1]"), std::string("7"),
          R"({"long":")" + std::string(600, 'x') + tail, R"({"long":")" + std::string(487, 'x') + tail}) {
        write_file(kStatusFile, text);
        EXPECT_EQ(cloud_setFirmwareDownloadStatus(1, 1), 0);
        EXPECT_EQ(cloud_setFirmwareUpgradeStart(0), 0);
        EXPECT_EQ(file(kStatusFile), text);
    }
    device.settle();
    program::expect_console(device, "Error: parse json failed");
    write_file(kStatusFile, R"({"long":")" + std::string(485, 'x') + tail);  // 511 bytes
    EXPECT_EQ(cloud_setFirmwareUpgradeStart(0), 1);
    std::filesystem::remove(kStatusFile);
    std::filesystem::create_directory(kStatusFile);
    EXPECT_EQ(cloud_setFirmwareDownloadStatus(1, 1), 0);
}

TEST(Timeouts, TheSecondOfAUserRebuildsTheLink) {
    Device device;
    put_status_file();
    cloud_initReqTimeoutCount(0);
    cloud_handleTimeout(kRequestFwDownload);  // counts as a check all the same
    EXPECT_THAT(file(kStatusFile), HasSubstr("\"fw_status\":\t20003"));
    EXPECT_THAT(events(device), IsEmpty());
    cloud_handleTimeout(kRequestFwCheck);
    EXPECT_THAT(events(device), ElementsAre("2"));
    device.settle();
    program::expect_console(device, "user request timeout 2 times successively, recreate ssl path.");
    cloud_handleTimeout(kRequestFwCheck);
    EXPECT_THAT(events(device), ElementsAre("2"));  // counted anew

    cloudDownloadFwExpired();
    EXPECT_THAT(file(kStatusFile), HasSubstr("\"fw_status\":\t20000"));
    cloud_initReqTimeoutCount(kRequestFwCheck);  // leaves the download's count
    cloudDownloadFwExpired();
    EXPECT_THAT(events(device), ElementsAre("2", "2"));
    notifyEventExpired();
    EXPECT_THAT(events(device), ElementsAre("2", "2"));
}

TEST(Timeouts, TheThirdOfAnAutomaticRequestRebuildsTheLinkUntilTheBrokerAgrees) {
    Device device(json::parse(R"({"rules":[{"on":80,"do":{"errorcode":-5}}]})"));
    cloud_initReqTimeoutCount(4);
    requestTimeoutCount(kRequestNotifyEvent, 0);
    requestTimeoutCount(kRequestNotifyEvent, 0);
    EXPECT_THAT(device.journal().messages(emulator::kNotify), IsEmpty());
    requestTimeoutCount(kRequestNotifyEvent, 0);
    device.settle();
    program::expect_console(device, "auto request timeout 3 times successively, recreate ssl path.");
    program::expect_console(device, "reconstruct ssl path path failed!");
    device.broker().set_rules(json::array());
    requestTimeoutCount(kRequestNotifyEvent, 0);
    EXPECT_EQ(device.journal().messages(emulator::kNotify).back().at("body"), R"({"event":1})");
    const size_t asked = device.journal().messages(emulator::kNotify).size();
    requestTimeoutCount(kRequestNotifyEvent, 0);
    requestTimeoutCount(-1, 0);
    requestTimeoutCount(kRequestTypeEnd + 1, 0);
    EXPECT_EQ(device.journal().messages(emulator::kNotify).size(), asked);
}

TEST(Check, AnAutomaticTimeOutIsCountedEverySecondTime) {
    Device device(json::parse(R"({"rules":[{"on":"request","method":"getIntlFwList",
                                            "do":{"answer":"{\"error_code\":-3002}"}}]})"));
    put_status_file();
    cloud_initReqTimeoutCount(0);
    EXPECT_EQ(checkFwVerFromCloud(0), 1);
    EXPECT_EQ(checkFwVerFromCloud(0), 1);
    EXPECT_THAT(events(device), IsEmpty());
    EXPECT_EQ(cloud_userCheckFwVerFromCloud(), 1);
    EXPECT_THAT(events(device), IsEmpty());
    EXPECT_EQ(cloud_autoCheckFwVerFromCloud(), 1);
    EXPECT_THAT(events(device), ElementsAre("2"));
}

TEST(Check, LeavesTheStatusAloneWhileADownloadRuns) {
    Device device;
    put_status_file();
    const std::string before = file(kStatusFile);
    g_fwDownloadFlag = 1;
    EXPECT_EQ(cloud_userCheckFwVerFromCloud(), 1);
    checkFwVerResultHandle(0, nullptr);
    g_fwDownloadFlag = 0;
    EXPECT_EQ(file(kStatusFile), before);
    EXPECT_EQ(getFwListCreateJsonMsg(nullptr), nullptr);
}

TEST(CloseNotice, IsSentAndAnswered) {
    Device device;
    connect_anew();
    cloud_closeConnection(7);
    device.journal().wait_for(
        emulator::has({{"kind", "console"}, {"text", "closeConnection get a correct response!"}}));
    EXPECT_THAT(program::requests(device),
                ElementsAre(R"({"method":"notifyEvent","params":{"event":"closeConnection",)"
                            R"("attribute":{"reason":7}}})"));
    device.broker().stop();
    cloud_closeConnection(-7);
    device.settle();
    program::expect_console(device, "Fail to kxcc_send_request_async, error=-200");
}

TEST(CloseNotice, ItsAnswersAreLogged) {
    Device device;
    struct Answer {
        const char *text;
        const char *logged;
    };
    for (const Answer &answer :
         {Answer{R"({"error_code":"-3002","msg":"x"})", "closeConnection response timeout!"},
          {R"({"error_code":"-3002","msg":"x"})",
           "Cloud Server response error message, error code is -3002!"},
          {R"({"error_code":-5,"msg":"x"})", "handle error message succeed!"},
          {R"({"error_code":-5})", "errMsg is NULL"},
          {R"({"msg":"x"})", "errCode is null ptr"},
          {"{", "get jsonrpc obj failed."}}) {
        device.journal().clear();
        closeConnResultHandle(1, answer.text);
        device.settle();
        program::expect_console(device, answer.logged);
    }
    EXPECT_EQ(cloud_cloudServerErrMsgHandle(nullptr), 0);
}

TEST(DownloadEntry, ThereIsOneAtATime) {
    Device device;
    put_status_file();
    EXPECT_EQ(downloadHandler(), 0);
    EXPECT_THAT(file(kStatusFile), HasSubstr("20000"));
    EXPECT_EQ(cloud_storeFwMsgInDeviceTree(nullptr), 0);
    EXPECT_EQ(storeDownloadEntryInDeviceTree(nullptr), 0);
    EXPECT_EQ(cloud_storeFwMsgInDeviceTree("http://localhost:1/first.bin"), 1);
    EXPECT_EQ(cloud_storeFwMsgInDeviceTree("http://localhost:1/second.bin"), 0);
    EXPECT_EQ(downloadHandler(), 1);
    device.settle();
    program::expect_console(device, "download firmware http://localhost:1/first.bin begin");
    EXPECT_EQ(downloadHandler(), 0);

    DownloadEntry other{kEntryPending, kResourceFirmware + 1, {}};
    EXPECT_EQ(storeDownloadEntryInDeviceTree(&other), 1);
    EXPECT_EQ(downloadHandler(), 1);
    device.settle();
    program::expect_console(device, "download unknow form cloud.");
    program::expect_console(device, "resource type is invalid.");
    EXPECT_EQ(downloadFromCloud(nullptr), 0);
    EXPECT_EQ(cloud_downloadFwByHttp(nullptr), 0);
    EXPECT_EQ(downloadFwByHttpClient(nullptr), -1);
}

TEST(DownloadEntry, IsGivenUpWithoutMemory) {
    Device device;
    put_status_file();
    EXPECT_EQ(cloud_storeFwMsgInDeviceTree("http://localhost:1/first.bin"), 1);
    l_no_memory = true;
    EXPECT_EQ(downloadHandler(), 1);
    l_no_memory = false;
    EXPECT_THAT(file(kStatusFile), HasSubstr("\"fw_status\":\t20004,\n\t\"dwProgress\":\t0"));
    EXPECT_EQ(downloadHandler(), 0) << "the entry is free";
}

TEST(DownloadEntry, AThreadCanServeIt) {
    Device device;
    put_status_file();
    EXPECT_EQ(cloud_storeFwMsgInDeviceTree("http://localhost:1/first.bin"), 1);
    EXPECT_EQ(cloud_initPthreadDownloadHandler(), 1);  // which clears what was pending
    device.journal().wait_for([](const json &record) {
        return record.value("text", "") == "Exception: Download entry is not correct.";
    });
}

TEST(HttpClient, RefusesWhatItCannotFetch) {
    Device device;
    ImageServer server(device.journal());
    server.put("/fw.bin", pattern(1000));
    std::array<char, kLocalPathRoom> path{};
    EXPECT_EQ(cloud_httpClientDownloadFile(nullptr, path.data(), 1), -1);
    EXPECT_EQ(cloud_httpClientDownloadFile(server.url("/").c_str(), path.data(), 1), -1);
    EXPECT_EQ(cloud_httpClientDownloadFile(server.url("/fw.bin").c_str(), nullptr, 1), -1);
    EXPECT_THAT(requests(device), IsEmpty());
    EXPECT_EQ(cloud_httpClientGet(nullptr, path.data(), 1), -1);
    EXPECT_EQ(cloud_httpClientDownloadFile(server.url("/fw.bin").c_str(), path.data(), 2), -1);
    EXPECT_EQ(file(kPartial), "absent");
    EXPECT_EQ(cloud_httpClientDownloadFile(server.url("/fw.bin").c_str(), path.data(), 0), 0);
    EXPECT_EQ(path.data(), kPartial);
    EXPECT_EQ(file(kPartial), pattern(1000));

    std::filesystem::remove(kPartial);
    std::filesystem::create_directory(kPartial);
    EXPECT_EQ(cloud_httpClientDownloadFile(server.url("/fw.bin").c_str(), path.data(), 1), -1);
    device.settle();
    program::expect_console(device, "open /tmp/cloud_up_img.bin failed.");
    uint32_t size = 0;
    EXPECT_EQ(getLocalFileLen("/tmp/none", &size), -1);
}

TEST(ImageBuffer, IsTenMebibytesAndABit) {
    EXPECT_EQ(cmem_getUpdateBufSize(), 10486020U);
    void *buffer = cmem_updateFirmwareBufMalloc();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(cmem_updateFirmwareBufFree(buffer), 1);
    EXPECT_DEATH(cmem_updateFirmwareBufFree(nullptr), "pBuf != \\(\\(void \\*\\)0\\)");
}

TEST(Upgrade, WithoutATransactionReturnsTheStoresCode) {
    Device device;
    write_file(kFinished, image(device, kNewVersion, 1000));
    ASSERT_EQ(wrpGetTransID(0), 0);  // ours: the store has no second one
    EXPECT_EQ(cloud_updateFirmware(0, 0), -1);
    EXPECT_EQ(wrpWithdrawTransID(), 0);
    device.settle();
    program::expect_console(device, "wrpGetTransID failed, ret = -1");
    EXPECT_FALSE(Device::restart_due());
}

struct Link {
    const char *name;
    const char *scenario;
    bool reconnecting;
    int repaired;
    Strings logged;
};

class LinkRepair : public testing::TestWithParam<Link> {};

TEST_P(LinkRepair, WaitsForALinkThatComesBack) {
    Device device(json::parse(GetParam().scenario));
    connect_anew();
    if (GetParam().reconnecting) {
        kxcc_notify_cloud_brd(3);
    }
    EXPECT_EQ(reconnCloudSrvHandler(), GetParam().repaired);
    device.settle();
    for (const std::string &text : GetParam().logged) {
        program::expect_console(device, text);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Links, LinkRepair,
    testing::Values(
        Link{"Up", R"({"link":2})", false, 1, {"reconnect cloud server successfully!"}},
        Link{"Reconnecting",
             R"({"reconnect_polls":2})",
             true,
             1,
             {"link is reconnecting, please wait 5 s!", "reconnect cloud server successfully!"}},
        Link{"Down", R"({"link":1,"reconnect_polls":1000})", false, 0, {"reconnect cloud server failed!"}}),
    [](const auto &row) { return row.param.name; });

TEST(Handlers, WithoutActionAnswer) {
    EXPECT_EQ(fwDoneMsgHandler(), 1);
    EXPECT_EQ(fwNotDoneMsgHandler(), 0);
}

}  // namespace
