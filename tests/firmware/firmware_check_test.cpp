// `check` and `getFwList`: the request, what is stored of the answer, and the states shown.
#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "firmware_support.h"
#include "wrapper.h"

namespace {

using namespace firmware;
using program::file;
using program::printed;
using program::write_file;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr uintptr_t kFirmwareRecord = 0x12000a;
constexpr uintptr_t kDeviceInfoWrite = 0x12000b;
constexpr size_t kRecordBytes = 2648;

const Strings kOffered{"11 0", "4 0", "start 0", "5 0"};
const Strings kRefused{"11 0", "4 0", "start 0", "20003 0"};

// The record as the platform holds it, not as our accessor reads it.
std::string stored_record() {
    std::string record(kRecordBytes, '\xee');
    WrpOpEntry read{kFirmwareRecord, 0, 0, reinterpret_cast<uintptr_t>(record.data()), record.size()};
    EXPECT_EQ(wrpOpGrpDo(&read, sizeof read, WRP_READ), 0);
    return record;
}

// Texts at their offsets, the rest zero.
std::string record(const std::vector<std::pair<size_t, std::string>> &parts) {
    std::string bytes(kRecordBytes, '\0');
    for (const auto &[offset, text] : parts) {
        bytes.replace(offset, text.size(), text);
    }
    return bytes;
}

// Has the cloud answer the next requests for the list with a text of ours.
json answering(const std::string &answer) {
    return {{"rules", {{{"on", "request"}, {"method", "getIntlFwList"}, {"do", {{"answer", answer}}}}}}};
}

std::string list_of(const json &entries) {
    return json{{"error_code", 0}, {"result", {{"fwList", entries}}}}.dump();
}

template <class Row>
std::string row_name(const testing::TestParamInfo<Row> &info) {
    return info.param.name;
}

TEST(Check, AsksForThisDevice) {
    Device device;
    put_status_file();
    EXPECT_EQ(watch({"check"}), kOffered);
    EXPECT_THAT(
        program::requests(device),
        ElementsAre(R"({"method":"getIntlFwList","params":{"fwId":"6F1D3C5B7A9E8D2C4B6A8091E3F5D7C9",)"
                    R"("hwId":"0A1B2C3D4E5F60718293A4B5C6D7E8F9",)"
                    R"("oemId":"F9E8D7C6B5A493827160F5E4D3C2B1A0","devFwCurrentVer":"1.0.3"}})"));
    EXPECT_EQ(other_members(), R"({"first":[1,{"a":null}],"last":"x"})");
    EXPECT_EQ(file("/tmp/cloud_up_img.lock"), "absent");
}

TEST(Check, StoresTheNewestOfTheListByteForByte) {
    Device device;
    json newest = entry("1.0.7 Build 20210611 Rel.51820", "http://localhost/a.bin");
    newest["fwType"] = "300";  // of which the record holds the last eight bits
    newest["fwLocation"] = 7;
    json equal = entry("1.0.7 Build 20990101 Rel.99999", "http://localhost/b.bin");
    device.cloud().change(
        {{"firmware", {entry("1.0.5 Build 1 Rel.1", "http://localhost/0.bin"), newest, equal}}});
    const auto before = static_cast<uint32_t>(time(nullptr));
    EXPECT_EQ(printed(device, {"getFwList"}), "0\n");
    EXPECT_EQ(stored_record(), record({{0, "\x07\x2c"},
                                       {2, "2021-06-11"},
                                       {276, "1.0.7 Build 20210611 Rel.51820"},
                                       {341, "Security fixes."},
                                       {1366, "http://localhost/log.html"},
                                       {1623, "http://localhost/a.bin"}}));
    EXPECT_GE(device.store("upgrade-time").at("seconds"), before);
    EXPECT_EQ(device.store("upgrade-time").at("flag"), 1);
}

TEST(Check, StoresTypeThreeOnADeviceOfThatKind) {
    Device device;
    std::string kind(66, '\0');
    kind[0] = 3;
    WrpOpEntry write{kDeviceInfoWrite, reinterpret_cast<uintptr_t>(kind.data()), kind.size(), 0, 0};
    ASSERT_EQ(wrpOpGrpDo(&write, sizeof write, WRP_WRITE), 0);
    offer(device, "http://localhost/a.bin");
    EXPECT_EQ(stored_record()[1], '\x03');
}

struct Width {
    const char *name;
    const char *member;
    size_t offset;
    size_t most;  // characters that the record keeps
};

class StoredWidth : public testing::TestWithParam<Width> {};

TEST_P(StoredWidth, KeepsWhatFitsAndNothingElseChanges) {
    const Width &field = GetParam();
    const bool version = std::string(field.member) == "fwVer";
    for (const size_t length : {field.most - 1, field.most, field.most + 1, field.most + 4000}) {
        json offered = entry(kNewVersion, "http://localhost/a.bin");
        std::string text = pattern(length);
        for (char &letter : text) {
            letter = static_cast<char>('a' + static_cast<unsigned char>(letter) % 26);
        }
        text = version ? "1.0.7 Build " + text.substr(12) : text;
        offered[field.member] = text;
        Device device({}, {{"firmware", json::array()}});
        device.broker().set_rules(answering(list_of(json::array({offered}))).at("rules"));
        EXPECT_EQ(printed(device, {"getFwList"}), "0\n");
        std::vector<std::pair<size_t, std::string>> parts{{1, "\x02"},
                                                          {2, "2021-06-11"},
                                                          {276, kNewVersion},
                                                          {341, "Security fixes."},
                                                          {1366, "http://localhost/log.html"},
                                                          {1623, "http://localhost/a.bin"}};
        for (auto &part : parts) {
            if (part.first == field.offset) {
                part.second = text.substr(0, field.most);
            }
        }
        EXPECT_EQ(stored_record(), record(parts)) << length;
    }
}

INSTANTIATE_TEST_SUITE_P(Fields, StoredWidth,
                         testing::Values(Width{"Date", "fwReleaseDate", 2, 16},
                                         Width{"Version", "fwVer", 276, 64},
                                         Width{"Log", "fwReleaseLog", 341, 1024},
                                         Width{"LogUrl", "fwReleaseLogUrl", 1366, 256},
                                         Width{"Url", "fwUrl", 1623, 1024}),
                         row_name<Width>);

// What the cloud answers, what `check` shows and what `getFwList` prints and stores.
struct Answer {
    const char *name;
    std::string answer;
    Strings changes;
    const char *logged;
    bool stored_by_check;
    bool stored_by_list;
};

class CloudAnswer : public testing::TestWithParam<Answer> {};

TEST_P(CloudAnswer, IsShownAndStored) {
    const Answer &row = GetParam();
    Device device(answering(row.answer));
    const std::string nothing(kRecordBytes, '\0');
    put_status_file();
    EXPECT_EQ(watch({"check"}), row.changes) << device.journal().text();
    device.settle();
    program::expect_console(device, row.logged);
    EXPECT_EQ(stored_record() != nothing, row.stored_by_check);

    device.reset();
    put_status_file();
    const std::string before = file(kStatusFile);
    EXPECT_EQ(printed(device, {"getFwList"}), "0\n");
    EXPECT_EQ(stored_record() != nothing, row.stored_by_list);
    EXPECT_EQ(file(kStatusFile), before);  // which only the check writes
}

json without(const char *member) {
    json offered = entry(kNewVersion, "http://localhost/a.bin");
    offered.erase(member);
    return offered;
}

const json kEntry = entry(kNewVersion, "http://localhost/a.bin");

INSTANTIATE_TEST_SUITE_P(
    Answers, CloudAnswer,
    testing::Values(
        Answer{"OneEntry", list_of(json::array({kEntry})), kOffered, "response auto check firmware.", true,
               true},
        Answer{"NoEntry", list_of(json::array()), kOffered,
               "FwList is empty! Current firmware is up to date!", false, false},
        Answer{"AListInQuotes", list_of(json::array({kEntry}).dump()), kOffered, "cloud_setNewFwInfo done.",
               true, true},
        Answer{"NoLogUrl", list_of(json::array({without("fwReleaseLogUrl")})), kRefused,
               "upgrade info is incorrect.", false, true},
        Answer{"NoLogAndLocation", list_of(json::array({without("fwReleaseLog")})), kOffered,
               "cloud_setNewFwInfo done.", true, true},
        Answer{"NoUrl", list_of(json::array({without("fwUrl")})), kRefused, "upgrade info is incorrect.",
               false, false},
        Answer{"NoVersionInTheFirst", list_of({without("fwVer"), kEntry}), kRefused,
               "cmpFwVer or curFwVer is NULL", false, false},
        Answer{"NoVersionInTheSecond", list_of({kEntry, without("fwVer")}), kOffered,
               "cmpFwVer or curFwVer is NULL", true, true},
        Answer{"EntriesThatAreNone", list_of({1, "x", nullptr}), kRefused, "upgrade info is incorrect.",
               false, false},
        Answer{"AListThatIsNone", list_of({{"a", 1}}), kRefused, "arrayFwList's type is not array!", false,
               false},
        Answer{"ATextThatIsNoList", list_of("[{"), kRefused, "arrayFwList's type is not array!", false,
               false},
        Answer{"NoList", R"({"error_code":0,"result":{"FWLIST":[]}})", kRefused, "Couldn't found fwList",
               false, false},
        Answer{"NoResult", R"({"error_code":0})", kRefused, "get jsonrpc obj failed.", false, false},
        Answer{"NoErrorCode", R"({"result":{"fwList":[]}})", kRefused, "errCode is null ptr", false, false},
        Answer{"AnError", R"({"error_code":-20301,"msg":"Device doesn't exist"})", kRefused,
               "Cloud Server response error message, error code is -20301!", false, false},
        Answer{"AnErrorWithoutText", R"({"error_code":"-20301"})", kRefused, "errMsg is NULL", false, false},
        Answer{"ATimeOut",
               R"({"error_code":-3002,"msg":"Request timeout"})",
               {"11 0", "4 0", "start 0", "start 0", "20003 0", "20003 0"},
               "CheckFw timeout!",
               false,
               false}),
    row_name<Answer>);

// What keeps the request from being made or answered.
struct Obstacle {
    const char *name;
    const char *scenario;
    std::function<void()> prepare;
    Strings changes;
    int printed;  // by getFwList
};

class CheckObstacle : public testing::TestWithParam<Obstacle> {};

const Strings kNotSent{"11 0", "4 0", "start 0", "20003 0", "20003 0", "start 0"};
const Strings kNotMade{"11 0", "4 0", "20003 0", "start 0"};

TEST_P(CheckObstacle, EndsWithItsStatusAndCode) {
    Device device(json::parse(GetParam().scenario));
    put_status_file();
    GetParam().prepare();
    EXPECT_EQ(watch({"check"}), GetParam().changes) << device.journal().text();
    EXPECT_EQ(printed(device, {"getFwList"}), std::to_string(GetParam().printed) + "\n");
}

const auto kNothing = [] {};

INSTANTIATE_TEST_SUITE_P(
    Obstacles, CheckObstacle,
    testing::Values(Obstacle{"NoBroker", R"({"listening":false})", kNothing, kNotSent, -2001},
                    Obstacle{"NoAnswer", R"({"pending":-1,"logic":1})", kNothing, kNotSent, -3002},
                    Obstacle{"NoSoftInfo", "{}", [] { unlink("/tmp/softinfo"); }, kNotMade, -1},
                    Obstacle{"NoDeviceInfo", "{}", [] { write_file("/tmp/device.info", ""); }, kNotMade, -1},
                    Obstacle{"VersionWithoutBlank", "{}", [] { write_file("/tmp/softinfo", "1.0.3"); },
                             kNotMade, -1},
                    Obstacle{"VersionTooLong", "{}",
                             [] { write_file("/tmp/softinfo", "1234567.12345678 Build"); }, kNotMade, -1}),
    row_name<Obstacle>);

TEST(Check, ChoosesAmongThousands) {
    json entries = json::array();
    for (int i = 0; i < 2000; ++i) {
        entries.push_back(entry("1.0." + std::to_string(i) + " Build 1 Rel.1", "http://localhost/a.bin"));
    }
    Device device({}, {{"firmware", entries}});
    put_status_file();
    EXPECT_EQ(printed(device, {"check"}), "0\n");
    EXPECT_THAT(file(kStatusFile), HasSubstr("\"fw_status\":\t5"));
    EXPECT_EQ(stored_record().substr(276, 8), "1.0.1999");
}

}  // namespace
