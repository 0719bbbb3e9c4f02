#include "cloud_userConfig.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <array>
#include <bit>
#include <cstring>
#include <ctime>

#include "program.h"
#include "wrapper.h"

namespace {

using namespace program;

/// A record of the store, read through the platform's interface.
std::string record(uintptr_t object, size_t size) {
    std::string bytes(size, '?');
    WrpOpEntry entry{object, 0, 0, reinterpret_cast<uintptr_t>(bytes.data()), size};
    EXPECT_EQ(wrpOpGrpDo(&entry, sizeof entry, WRP_READ), 0);
    return bytes;
}

/// A text at the start of a field of zeros.
std::string field(const std::string &text, size_t size) {
    return text + std::string(size - text.size(), '\0');
}

struct FirmwareRow {
    const char *name;
    size_t excess;     // characters beyond the longest text of each field
    const char *type;  // null: absent
    char storedType;
    const char *location;
    char storedLocation;
    uint8_t kind;  // of the device
};

class StoredFirmware : public testing::TestWithParam<FirmwareRow> {};

TEST_P(StoredFirmware, StandsAtItsOffsets) {
    const FirmwareRow &row = GetParam();
    Device device;
    DeviceInfo info{row.kind, "Hall"};
    cloud_setDeviceInfo(&info);
    const auto text = [&](char letter, size_t longest) {
        return std::string(longest + row.excess - 1, letter);
    };
    const std::string version = text('v', 64);
    const std::string date = text('d', 16);
    const std::string url = text('u', 1024);
    const std::string log = text('l', 1024);
    const std::string logUrl = text('w', 256);
    const char *fields[] = {row.type,    version.c_str(), date.c_str(), url.c_str(),
                            log.c_str(), logUrl.c_str(),  row.location};
    const auto before = static_cast<uint32_t>(time(nullptr));
    ASSERT_EQ(cloud_setNewFwInfo(fields), 1);

    const std::string expected = std::string(1, row.storedLocation) + row.storedType +
                                 field(date.substr(0, 16), 17) + std::string(257, '\0') +
                                 field(version.substr(0, 64), 65) + field(log.substr(0, 1024), 1025) +
                                 field(logUrl.substr(0, 256), 257) + field(url.substr(0, 1024), 1025);
    EXPECT_EQ(record(0x12000a, 2648), expected);
    EXPECT_EQ(device.store("upgrade-time").at("flag"), 1);
    EXPECT_GE(device.store("upgrade-time").at("seconds"), before);
    UpgradeInfo upgrade;
    ASSERT_EQ(cloud_getNewFwInfo(&upgrade), 1);
    EXPECT_EQ(std::string(upgrade.url), url.substr(0, 1023));  // terminated, so one less than the record
    expect_console(device, "fwUpInfo->url : uuu");

    cloud_clearFwUpInfo();
    EXPECT_EQ(record(0x12000a, 2648), std::string(2648, '\0'));
    EXPECT_EQ(device.store("upgrade-time"), (json{{"seconds", 0}, {"flag", 0}}));
}

INSTANTIATE_TEST_SUITE_P(Rows, StoredFirmware,
                         testing::Values(FirmwareRow{"BelowTheWidths", 0, "2", 2, "1", 1, 0},
                                         FirmwareRow{"AtTheWidths", 1, "300", 44, "-1", '\xFF', 0},
                                         FirmwareRow{"AboveTheWidths", 2, "x", 0, nullptr, 0, 0},
                                         FirmwareRow{"TypeForced", 1, "2", 3, "4294967297", 1, 3},
                                         FirmwareRow{"TypeForcedWhenAbsent", 1, nullptr, 3, "", 0, 3}),
                         row_name<FirmwareRow>);

TEST(UserConfig, AllFieldsMayBeAbsent) {
    Device device;
    const char *fields[7] = {};
    ASSERT_EQ(cloud_setNewFwInfo(fields), 1);
    EXPECT_EQ(record(0x12000a, 2648), std::string(2648, '\0'));
    EXPECT_EQ(device.store("upgrade-time").at("flag"), 1);
    EXPECT_EQ(cloud_setOldFwInfo(), 1);
}

TEST(UserConfig, SingleRecordsGoThereAndBack) {
    Device device;
    LoginInfo login{2, "bob@example.com"};
    EXPECT_EQ(cloud_setLoginInfo(&login), 1);
    EXPECT_EQ(record(0x120002, 130), field(std::string("\2") + "bob@example.com", 130));
    AccountList account{5, "alice", "cipher", ""};
    cloud_insertAccount(&account);
    AccountList read;
    cloud_getAccount(&read);
    EXPECT_EQ(read.count, 1);
    EXPECT_STREQ(read.password, "cipher");
    AccountList other{0, "bob", "", ""};
    cloud_removeAccount(&other);
    cloud_getAccount(&read);
    EXPECT_EQ(read.count, 1);
    cloud_removeAccount(&account);
    cloud_getAccount(&read);
    EXPECT_EQ(read.count, 0);
    EXPECT_STREQ(read.userName, "");

    EXPECT_EQ(cloud_setLoginInfo(nullptr), 0);
    EXPECT_EQ(cloud_getLoginInfo(nullptr), 0);
    cloud_setDeviceStatus(nullptr);
    cloud_getDeviceStatus(nullptr);
    cloud_setDeviceInfo(nullptr);
    cloud_getDeviceInfo(nullptr);
    cloud_insertAccount(nullptr);
    cloud_removeAccount(nullptr);
    cloud_getAccount(nullptr);
    EXPECT_EQ(cloud_getNewFwInfo(nullptr), 0);
    EXPECT_EQ(cloud_setNewFwInfo(nullptr), 0);
}

TEST(UserConfig, CheckInfoComesFromTheIdentityFiles) {
    struct Row {
        const char *name;
        std::string document;
        int result;
        std::string fw, dev;
    };
    const std::string text(200, 'x');
    const json tooLong = {{"firmware_id", text}, {"devid", text}};
    for (const Row &row :
         {Row{"complete", R"({"firmware_id":"F","hardware_id":"H","oem_id":"O","devid":"D"})", 1, "F", "D"},
          Row{"other types", R"({"firmware_id":1,"devid":5})", 1, "", ""},
          Row{"other case", R"({"Firmware_Id":"F","DEVID":"D"})", 1, "", ""},
          Row{"too long", tooLong.dump(), 1, text.substr(0, 32), text.substr(0, 64)},
          Row{"empty", "", 0, "", ""}, Row{"not JSON", "{", 0, "", ""}}) {
        SCOPED_TRACE(row.name);
        Device device;
        write_file("/tmp/device.info", row.document);
        CheckInfo info{};
        EXPECT_EQ(cloud_getCheckFwVerInfo(&info), row.result);
        EXPECT_EQ(std::string(info.fw_id), row.fw);
        EXPECT_EQ(std::string(info.dev_id), row.dev);
        EXPECT_EQ(std::string(info.sw_version), row.result == 1 ? emulator::kSoftwareVersion : "");
    }
    Device device;
    unlink("/tmp/softinfo");
    CheckInfo info{};
    EXPECT_EQ(cloud_getCheckFwVerInfo(&info), 0);
    EXPECT_STREQ(info.dev_id, emulator::kDeviceId);  // read before the failure
    expect_console(device, "open /tmp/softinfo file failed");
    write_file("/tmp/softinfo", std::string(500, 'v'));
    EXPECT_EQ(cloud_getCheckFwVerInfo(&info), 1);
    EXPECT_EQ(std::string(info.sw_version), std::string(127, 'v'));
}

TEST(UserConfig, TransactionMessagesHaveTheirLayout) {
    EXPECT_EQ(ucm_ui_req_msg_size(), 24);
    using Words = std::array<uint32_t, 6>;
    const auto words = [](auto fill) {
        UcmMessage message{};
        EXPECT_EQ(fill(&message), 0);
        return std::bit_cast<Words>(message);
    };
    EXPECT_EQ(words([](auto *m) { return ucm_ui_req_trans_begin(m, 9); }), (Words{257, 0, 4, 0, 9, 0}));
    EXPECT_EQ(words([](auto *m) { return ucm_ui_req_trans_commit(m, 9); }), (Words{258, 0, 4, 0, 0, 9}));
    EXPECT_EQ(words([](auto *m) { return ucm_ui_req_trans_withdraw(m, 9); }), (Words{259, 0, 4, 0, 0, 9}));
    int (*const kinds[])(UcmMessage *) = {ucm_ui_req_type_513, ucm_ui_req_type_514, ucm_ui_req_type_515,
                                          ucm_ui_req_type_516, ucm_ui_req_type_517};
    for (uint32_t i = 0; i < 5; ++i) {
        EXPECT_EQ(words(kinds[i]), (Words{513 + i, 0, 4, 0, 0, 0}));
    }
}

TEST(UserConfig, TransactionResponsesAreChecked) {
    struct {
        UcmMessage head{0, 0, 8, 0, 0, 0};
        uint32_t more = 0;
    } response;
    memcpy(&response.head.payload, "abcdefgh", 8);
    EXPECT_EQ(ucm_ui_resp_check_result(&response.head, 28), 0);
    char text[16];
    EXPECT_EQ(ucm_ui_resp_get_str(&response.head, text, sizeof text), 0);
    EXPECT_STREQ(text, "abcdefgh");
    EXPECT_EQ(ucm_ui_resp_get_str(&response.head, text, 4), 0);
    EXPECT_STREQ(text, "abc");
    uint32_t word = 0;
    EXPECT_EQ(ucm_ui_resp_get_transId(&response.head, &word), 0);
    EXPECT_EQ(word, response.head.payload);

    testing::internal::CaptureStdout();
    EXPECT_EQ(ucm_ui_resp_check_result(&response.head, 27), -1000);
    EXPECT_EQ(ucm_ui_resp_check_result(&response.head, 4), -1000);
    EXPECT_EQ(ucm_ui_resp_check_result(nullptr, 28), -1000);
    response.head.payloadLength = UINT32_MAX;
    EXPECT_EQ(ucm_ui_resp_check_result(&response.head, 28), -1000);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_THAT(printed, testing::HasSubstr("[ERROR][ucm_ui_resp_check_result():"));
    EXPECT_THAT(printed, testing::HasSubstr("]: invalid msg(recv=27, should_be=28)\n\r"));
    EXPECT_THAT(printed, testing::HasSubstr("]: invalid msg(addr=00000000, len=28)\n\r"));
    response.head.payloadLength = 8;
    response.head.result = 1;
    EXPECT_EQ(ucm_ui_resp_check_result(&response.head, 28), -1000);
}

}  // namespace
