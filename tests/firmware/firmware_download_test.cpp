// `download`: the states it shows, the files it leaves, and what it does when the server fails.
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "await.h"
#include "firmware_support.h"

namespace {

using namespace firmware;
using program::file;
using program::printed;
using program::write_file;
using testing::ElementsAre;

constexpr int kSize = 1000;
constexpr int kAbsent = -1;
const Strings kDone{"11 0", "11 0", "1 100", "2 100"};
const Strings kRefused{"11 0", "20000 0", "20000 0", "start 0"};  // before a byte was asked for
const Strings kNothingCame{"11 0", "11 0", "20000 0", "20000 0", "start 0"};

std::string first(const std::string &content, int size) {
    return size == kAbsent ? "absent" : content.substr(0, static_cast<size_t>(size));
}

template <class Row>
std::string row_name(const testing::TestParamInfo<Row> &info) {
    return info.param.name;
}

// What the server does, and what comes of it.
struct Outcome {
    const char *name;
    const char *rules;
    Strings changes;
    int finished = kAbsent;  // bytes of the finished image
    int partial = kAbsent;   // and of the one that waits for the next run
};

class DownloadOutcome : public testing::TestWithParam<Outcome> {};

TEST_P(DownloadOutcome, ShowsItsStatesAndLeavesItsFiles) {
    Device device;
    ImageServer server(device.journal());
    const std::string content = pattern(kSize);
    server.put("/fw.bin", content);
    server.put("/elsewhere.bin", content);
    server.set_rules(json::parse(GetParam().rules));
    offer(device, server.url("/fw.bin"));
    put_status_file();
    EXPECT_EQ(watch({"download"}), GetParam().changes) << device.journal().text();
    EXPECT_EQ(other_members(), R"({"first":[1,{"a":null}],"last":"x"})");
    EXPECT_EQ(file(kFinished), first(content, GetParam().finished));
    EXPECT_EQ(file(kPartial), first(content, GetParam().partial));
    EXPECT_EQ(file(kDownloadLock), "absent");
}

INSTANTIATE_TEST_SUITE_P(
    Servers, DownloadOutcome,
    testing::Values(
        Outcome{"Willing", "[]", kDone, kSize}, Outcome{"NotFound", R"([{"do":{"status":404}}])", kRefused},
        Outcome{"ServerError", R"([{"do":{"status":500}}])", kRefused},
        Outcome{"NotFoundAfterItsLength", R"([{"method":"GET","do":{"status":404}}])", kNothingCame, kAbsent,
                0},
        Outcome{"DropsAtOnce", R"([{"method":"GET","do":{"drop_after":0}}])", kNothingCame, kAbsent, 0},
        Outcome{"DropsEveryTime",
                R"([{"method":"GET","do":{"drop_after":300}}])",
                {"11 0", "11 0", "1 30", "1 60", "1 90", "1 100", "2 100"},
                kSize},
        Outcome{"StallsOnce",
                R"([{"method":"GET","nth":1,"do":{"stall_after":300}}])",
                {"11 0", "11 0", "1 30", "1 100", "2 100"},
                kSize},
        Outcome{"DropsAndHasNoRanges",
                R"([{"do":{"drop_after":300,"ranges":false}}])",
                {"11 0", "11 0", "1 30", "20000 30", "20000 0", "start 0"}},
        Outcome{"LengthUnknown", R"([{"do":{"length":null}}])", {"11 0", "2 100"}, 0},
        Outcome{"LengthZero", R"([{"method":"HEAD","do":{"length":0}}])", {"11 0", "2 100"}, 0},
        // Versions of libcurl differ on what a 416 for the rest is.
        Outcome{"LengthTooLong",
                R"([{"method":"HEAD","do":{"length":2000}}, {"method":"GET","nth":1,"do":{}},
                    {"method":"GET","do":{"status":404}}])",
                {"11 0", "11 0", "1 50", "20000 50", "20000 0", "start 0"},
                kAbsent,
                kSize},
        Outcome{"LengthTooShort",
                R"([{"method":"HEAD","do":{"length":500}}])",
                {"11 0", "11 0", "1 200", "2 200"},
                kSize},
        Outcome{"Redirects", R"([{"path":"/fw.bin","do":{"status":302,"location":"/elsewhere.bin"}}])", kDone,
                kSize},
        Outcome{"RedirectsForEver", R"([{"do":{"status":302,"location":"/fw.bin"}}])", kRefused},
        Outcome{"RedirectsToAFile", R"([{"do":{"status":302,"location":"file:///etc/passwd"}}])", kRefused},
        Outcome{"RedirectsToFtp", R"([{"do":{"status":302,"location":"ftp://localhost/fw.bin"}}])",
                kRefused}),
    row_name<Outcome>);

// What an earlier run left, and what the next one makes of it.
struct Earlier {
    const char *name;
    int partial;
    int finished;
    const char *record;  // the image's name; null: no record
    Strings changes;
    Strings requests;
    int server_size = kSize;
};

class DownloadAfter : public testing::TestWithParam<Earlier> {};

TEST_P(DownloadAfter, TakesUpWhatIsThere) {
    const Earlier &row = GetParam();
    Device device;
    ImageServer server(device.journal());
    const std::string content = pattern(kSize);
    server.put("/fw.bin", content.substr(0, static_cast<size_t>(row.server_size)));
    offer(device, server.url("/fw.bin"));
    put_status_file();
    if (row.partial != kAbsent) {
        write_file(kPartial, first(content, row.partial));
    }
    if (row.finished != kAbsent) {
        write_file(kFinished, first(content, row.finished));
    }
    if (row.record != nullptr) {
        write_file("/tmp/cloud_img.name", row.record);
    }
    EXPECT_EQ(watch({"download"}), row.changes) << device.journal().text();
    EXPECT_EQ(requests(device), row.requests);
    EXPECT_EQ(file(kFinished), content);
    EXPECT_EQ(file("/tmp/cloud_img.name"), "/tmp/fw.bin");
    EXPECT_EQ(file("/tmp/cloud_img.size"), std::to_string(row.server_size) + "\n");
}

const Strings kResumed{"11 0", "11 40", "1 100", "2 100"};
const Strings kResumeRequests{"HEAD  200 0", "GET bytes=400- 206 600"};
const Strings kFreshRequests{"HEAD  200 0", "GET  200 1000"};
const Strings kNoTransfer{"HEAD  200 0"};

INSTANTIATE_TEST_SUITE_P(
    States, DownloadAfter,
    testing::Values(
        Earlier{"Nothing", kAbsent, kAbsent, nullptr, kDone, kFreshRequests},
        Earlier{"APartOfIt", 400, kAbsent, "/tmp/fw.bin", kResumed, kResumeRequests},
        Earlier{"APartWithoutARecord", 400, kAbsent, nullptr, kResumed, kResumeRequests},
        Earlier{"APartOfAnother", 400, kAbsent, "/tmp/old.bin", kDone, kFreshRequests},
        Earlier{"AnEmptyRecord", 400, kAbsent, "", kDone, kFreshRequests},
        Earlier{"AFinishedOneThatIsAPart", kAbsent, 400, "/tmp/fw.bin", kResumed, kResumeRequests},
        Earlier{"BothOfThem", 700, 400, "/tmp/fw.bin", kResumed, kResumeRequests},
        Earlier{"AFinishedOneOfAnother", kAbsent, kSize, "/tmp/old.bin", kDone, kFreshRequests},
        Earlier{"AllOfIt", kSize, kAbsent, "/tmp/fw.bin", {"11 0", "11 100", "2 100"}, kNoTransfer},
        Earlier{"MoreThanAll", kSize, kAbsent, "/tmp/fw.bin", {"11 0", "11 125", "2 125"}, kNoTransfer, 800}),
    row_name<Earlier>);

// Addresses are text of the cloud. None of these may be fetched, run or read.
struct Address {
    const char *name;
    std::string url;
};

class HostileAddress : public testing::TestWithParam<Address> {};

TEST_P(HostileAddress, IsAnInvalidTransfer) {
    Device device;
    write_file("/tmp/secret.bin", "secret");
    offer(device, GetParam().url);
    put_status_file();
    const Strings changes = watch({"download"});
    EXPECT_THAT(changes, ElementsAre("11 0", "20000 0", "20000 0", "start 0")) << device.journal().text();
    EXPECT_EQ(file(kFinished), "absent");
    EXPECT_EQ(file(kPartial), "absent");
    EXPECT_EQ(file("/tmp/owned"), "absent");
}

INSTANTIATE_TEST_SUITE_P(
    Texts, HostileAddress,
    testing::Values(Address{"File", "file:///tmp/secret.bin"}, Address{"Ftp", "ftp://localhost:1/fw.bin"},
                    Address{"Dict", "dict://localhost:1/fw.bin"},
                    Address{"Tftp", "tftp://localhost:1/fw.bin"},
                    Address{"Folder", "http://localhost:1/dir/"}, Address{"OnlyASlash", "/fw.bin"},
                    Address{"Option", "-o/tmp/owned"}, Address{"NoHost", "http:///fw.bin"},
                    Address{"Shell", "http://localhost:1/$(touch /tmp/owned)`touch /tmp/owned`;fw.bin"},
                    Address{"Quotes", "http://localhost:1/\"'; touch /tmp/owned; '\"fw.bin"},
                    Address{"Blanks", "http://localhost:1/a b c.bin"},
                    Address{"LineBreaks", "http://localhost:1/fw.bin\r\nX: y\r\n\r\n"},
                    Address{"Formats", "http://localhost:1/%n%n%s%s.bin"},
                    Address{"Long", "http://localhost:1/" + std::string(5000, 'a')}),
    row_name<Address>);

TEST(Download, ReportsEachPercentOnce) {
    Device device;
    ImageServer server(device.journal());
    server.put("/fw.bin", pattern(400000));
    server.set_rules(json::parse(R"([{"method":"GET","do":{"trickle":{"bytes":3000,"ms":1}}}])"));
    offer(device, server.url("/fw.bin"));
    put_status_file();
    const Strings changes = watch({"download"});
    ASSERT_GT(changes.size(), 6U);
    int last = 0;
    for (const std::string &change : Strings(changes.begin() + 2, changes.end() - 1)) {
        ASSERT_TRUE(change.starts_with("1 ")) << change;
        const int percent = std::stoi(change.substr(2));
        EXPECT_GT(percent, last);
        last = percent;
    }
    EXPECT_EQ(last, 100);
    EXPECT_EQ(changes.back(), "2 100");
}

TEST(Download, GivesUpAfterFiveAttemptsInARowWithoutAByte) {
    Device device;
    ImageServer server(device.journal());
    const std::string content = pattern(kSize);
    server.put("/fw.bin", content);
    json rules = json::array();
    for (const int bytes : {0, 0, 0, 0, 10, 0, 0, 0, 0}) {  // one rule for each request
        rules.push_back({{"method", "GET"}, {"nth", 1}, {"do", {{"drop_after", bytes}}}});
    }
    server.set_rules(rules);
    offer(device, server.url("/fw.bin"));
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    EXPECT_EQ(file(kFinished), content) << device.journal().text();
    EXPECT_EQ(requests(device).size(), 1U + 10U);
    EXPECT_EQ(requests(device).back(), "GET bytes=10- 206 990");

    device.journal().clear();
    unlink(kFinished.c_str());
    server.set_rules({{{"method", "GET"}, {"do", {{"drop_after", 0}}}}});
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    EXPECT_EQ(requests(device).size(), 1U + 5U);
}

TEST(Download, WithoutStoredFirmwareDoesNotTouchTheNetwork) {
    Device device;
    put_status_file();
    EXPECT_THAT(watch({"download"}), ElementsAre("11 0", "20000 0", "start 0"));
    setenv("CLOUD_STORE_FILE", "/mnt", 1);
    EXPECT_THAT(watch({"download"}), ElementsAre("11 0", "20000 0", "start 0", "20000 0", "start 0"));
    setenv("CLOUD_STORE_FILE", "/mnt/store.db", 1);
}

TEST(Download, LeavesALockOfAnotherAlone) {
    Device device;
    put_status_file();
    write_file(kDownloadLock, "");
    EXPECT_THAT(watch({"download"}), testing::IsEmpty());
    device.settle();
    program::expect_console(device, "Download/upgrade image lock, please wait.");
    program::expect_console(device, "download image from cloud in progress");
    program::expect_console(device, "cloud_localMsgTask end");
    EXPECT_EQ(file(kDownloadLock), "");
}

TEST(Download, PrintsNothingButItsResult) {
    Device device;
    ImageServer server(device.journal());
    server.put("/fw.bin", pattern(kSize));
    offer(device, server.url("/fw.bin"));
    EXPECT_EQ(printed(device, {"download"}), "0\n");  // not the header lines either
}

// libcurl leaves the signal of a lost connection to the program. Not each libcurl raises it, so that ending
// a connection shows nothing.
TEST(Download, IsNotEndedByTheSignalOfALostConnection) {
    Device device;
    ImageServer server(device.journal());
    server.put("/fw.bin", pattern(kSize));
    server.set_rules(json::parse(R"([{"method":"GET","nth":1,"do":{"stall_after":300}}])"));
    offer(device, server.url("/fw.bin"));
    auto process = device.start({"cloud_msg", "download"});
    ASSERT_TRUE(
        test::await([] { return std::filesystem::exists(kPartial) && file(kPartial).size() == 300; }));
    const std::string status = file("/proc/" + std::to_string(process.pid()) + "/status");
    const std::string ignored = status.substr(status.find("SigIgn:\t") + 8, 16);
    EXPECT_NE(std::stoull(ignored, nullptr, 16) & 1ULL << (SIGPIPE - 1U), 0U) << ignored;
    EXPECT_EQ(process.wait().out, "0\n");
}

// Killed at any moment, again and again, as by a watchdog or a power button.
TEST(Download, SurvivesKills) {
    constexpr size_t kBytes = 700001;
    constexpr int kKillsMax = 40;
    Device device;
    ImageServer server(device.journal());
    const std::string content = pattern(kBytes);
    server.put("/fw.bin", content);
    server.set_rules(json::parse(R"([{"method":"GET","do":{"trickle":{"bytes":3001,"ms":1}}}])"));
    offer(device, server.url("/fw.bin"));
    put_status_file();
    uint64_t random = 7;
    size_t before = 0;
    for (int kills = 0; file(kFinished) == "absent"; ++kills) {
        auto process = device.start({"cloud_msg", "download"});
        const size_t enough = before + next_number(random) % 40000;
        if (kills < kKillsMax) {
            ASSERT_TRUE(test::await([&] {
                std::error_code absent;
                const auto size = std::filesystem::file_size(kPartial, absent);
                return (!absent && size >= enough) || !process.running();
            }));
            process.kill(SIGKILL);
        }
        static_cast<void>(process.wait());
        unlink(kDownloadLock.c_str());  // as the device's back end does
        const std::string partial = file(kPartial);
        if (partial != "absent") {
            ASSERT_EQ(partial, content.substr(0, partial.size())) << "after kill " << kills;
            ASSERT_GE(partial.size(), before);
            before = partial.size();
        }
    }
    EXPECT_EQ(file(kFinished), content);
    bool started = false;
    for (const std::string &request : requests(device)) {
        if (request.starts_with("GET ")) {
            EXPECT_TRUE(!started || request.starts_with("GET bytes=")) << request;
            started = started || !request.ends_with(" 0");
        }
    }
    EXPECT_EQ(other_members(), R"({"first":[1,{"a":null}],"last":"x"})");
}

// Leaves only so many bytes of room in the device's /tmp, until make() or its end.
class RoomInTmp {
public:
    explicit RoomInTmp(size_t bytes) {
        struct statvfs disk {};
        EXPECT_EQ(statvfs("/tmp", &disk), 0);
        _set((disk.f_blocks - disk.f_bfree) * disk.f_frsize + bytes);
    }
    ~RoomInTmp() { make(); }
    RoomInTmp(const RoomInTmp &) = delete;
    RoomInTmp &operator=(const RoomInTmp &) = delete;
    static void make() { _set(size_t{256} << 20U); }

private:
    static void _set(size_t bytes) {
        const std::string option = "size=" + std::to_string(bytes);
        EXPECT_EQ(mount(nullptr, "/tmp", nullptr, MS_REMOUNT, option.c_str()), 0);
    }
};

TEST(Download, EndsOnAFullDiskAndResumesWhenThereIsRoom) {
    Device device;
    ImageServer server(device.journal());
    const std::string content = pattern(2000003);
    server.put("/fw.bin", content);
    offer(device, server.url("/fw.bin"));
    put_status_file();
    write_file("/tmp/other", "of another program");
    const RoomInTmp room(1200000);  // a program under ThreadSanitizer may take 512 KiB of it
    const Strings changes = watch({"download"});
    ASSERT_GE(changes.size(), 4U);
    EXPECT_THAT(Strings(changes.end() - 2, changes.end()), ElementsAre("20000 0", "start 0"));
    EXPECT_EQ(other_members(), R"({"first":[1,{"a":null}],"last":"x"})");
    EXPECT_EQ(file("/tmp/other"), "of another program");
    const std::string partial = file(kPartial);
    EXPECT_EQ(partial, content.substr(0, partial.size()));
    EXPECT_GT(partial.size(), 100000U);

    EXPECT_EQ(printed(device, {"download"}), "0\n");  // still full: nothing is lost
    EXPECT_EQ(file(kPartial).size(), partial.size());

    RoomInTmp::make();
    device.journal().clear();
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    EXPECT_EQ(file(kFinished), content);
    EXPECT_THAT(requests(device),
                ElementsAre("HEAD  200 0", "GET bytes=" + std::to_string(partial.size()) + "- 206 " +
                                               std::to_string(content.size() - partial.size())));
}

}  // namespace
