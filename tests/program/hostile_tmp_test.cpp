// What must hold although others write in "/tmp", runs are killed at any instant, disks fill up and calls
// fail.
#include <gmock/gmock.h>
#include <malloc.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <barrier>
#include <filesystem>
#include <thread>

#include "cloud_account.h"
#include "cloud_accountPasswd.h"
#include "cloud_accountRequest.h"
#include "cloud_replaceFile.h"
#include "cloud_userConfig.h"
#include "firmware_support.h"
#include "image_scenario.h"
#include "program.h"

namespace {

using namespace program;
using emulator::ImageServer;
using firmware::kFinished;
using firmware::kPartial;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr uid_t kStranger = 1000;
const std::string kNameRecord = "/tmp/cloud_img.name";
const std::string kVictim = "/tmp/victim";
const std::string kVictimText = R"({"fw_status":0,"of":"another program"})";

// What a local user may have put in a file's place.
enum class Thing { kLink, kHardLink, kFifo, kFolder, kStrangersFile };

void place(Thing thing, const std::string &path) {
    write_file(kVictim, kVictimText);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::remove_all(path);
    switch (thing) {
        case Thing::kLink:
            ASSERT_EQ(symlink(kVictim.c_str(), path.c_str()), 0);
            break;
        case Thing::kHardLink:
            ASSERT_EQ(link(kVictim.c_str(), path.c_str()), 0);
            break;
        case Thing::kFifo:
            ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
            break;
        case Thing::kFolder:
            ASSERT_EQ(mkdir(path.c_str(), 0777), 0);
            break;
        case Thing::kStrangersFile:
            write_file(path, R"({"theirs":1})");
            ASSERT_EQ(chmod(path.c_str(), 04666), 0);
            ASSERT_EQ(chown(path.c_str(), kStranger, kStranger), 0);
            break;
    }
}

bool may_make_strangers() {
    write_file("/tmp/probe", "");
    const bool may = chown("/tmp/probe", kStranger, kStranger) == 0;
    unlink("/tmp/probe");
    return may;
}

struct stat look(const std::string &path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

// No room for another byte in "/tmp", until the end of the scope.
class NoRoom {
public:
    NoRoom() {
        std::ofstream filler("/tmp/filler", std::ios::binary);
        mount(nullptr, "/tmp", nullptr, MS_REMOUNT, "size=8m");
        const std::string block(4096, 'f');
        while (filler.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
        }
    }
    ~NoRoom() {
        mount(nullptr, "/tmp", nullptr, MS_REMOUNT, "size=256m");
        unlink("/tmp/filler");
    }
    NoRoom(const NoRoom &) = delete;
    NoRoom &operator=(const NoRoom &) = delete;
};

struct Written {
    const char *name;
    const char *path;
    std::vector<std::string> command;
    const char *answer;
    mode_t mode;  // of a new file
};

const std::string kToken =
    R"({"error_code":0,"result":{"deviceToken":"a","expiresIn":1,"serviceUrls":{"eweb":"u"}}})";

std::vector<Written> written_files() {
    return {{"Error", "/tmp/cloud.error", {"online"}, R"({"error_code":0})", 0644},
            {"Login", "/tmp/cloud.login", {"unbind", "x"}, R"({"error_code":0})", 0644},
            {"Token", "/tmp/cloud.token", {"getDevToken"}, kToken.c_str(), 0600},
            {"Cache", "/tmp/cloud_data_cache/m", {"passthrough", "m", "e30="}, R"({"error_code":0})", 0600},
            {"Status", "/tmp/cloud.info", {"check"}, R"({"error_code":0})", 0644}};
}

class HostileTmp : public testing::TestWithParam<Written> {};

// Whether there is room or not, nothing is written through what stands there, and no name is left beside.
TEST_P(HostileTmp, NothingIsWrittenThroughWhatStandsThere) {
    const Written &row = GetParam();
    Device device(answering(row.answer));
    for (const Thing thing : {Thing::kLink, Thing::kHardLink, Thing::kFifo, Thing::kFolder}) {
        for (const bool full : {false, true}) {
            place(thing, row.path);
            std::vector<std::string> before;
            if (full) {
                const NoRoom room;
                printed(device, row.command);
            } else {
                printed(device, row.command);
            }
            EXPECT_EQ(file(kVictim), kVictimText) << static_cast<int>(thing) << full;
            for (const auto &entry :
                 std::filesystem::directory_iterator(std::filesystem::path(row.path).parent_path())) {
                EXPECT_THAT(entry.path().string(), Not(HasSubstr(std::string(row.path) + "."))) << full;
            }
        }
    }
}

// The other user who made the file first does not own the one that holds our content.
TEST_P(HostileTmp, AStrangersFileIsReplacedByOneOfOurOwn) {
    const Written &row = GetParam();
    Device device(answering(row.answer));
    if (!may_make_strangers()) {
        GTEST_SKIP() << "needs a second user id";
    }
    place(Thing::kStrangersFile, row.path);
    printed(device, row.command);
    const struct stat status = look(row.path);
    EXPECT_EQ(status.st_uid, geteuid());
    EXPECT_EQ(status.st_mode & 07777, row.mode);
    EXPECT_NE(file(row.path), R"({"theirs":1})");
}

INSTANTIATE_TEST_SUITE_P(Files, HostileTmp, testing::ValuesIn(written_files()), row_name<Written>);

TEST(HostileCache, AFolderThatIsALinkOrAStrangersIsNotWrittenTo) {
    Device device(answering(R"({"error_code":0})"));
    std::filesystem::create_directory("/tmp/elsewhere");
    std::filesystem::create_directory_symlink("/tmp/elsewhere", "/tmp/cloud_data_cache");
    EXPECT_EQ(printed(device, {"passthrough", "m", "e30="}), "0\n");
    EXPECT_TRUE(std::filesystem::is_empty("/tmp/elsewhere"));
    std::filesystem::remove("/tmp/cloud_data_cache");
    std::filesystem::create_directory("/tmp/cloud_data_cache");
    if (chown("/tmp/cloud_data_cache", kStranger, kStranger) == 0) {
        EXPECT_EQ(printed(device, {"passthrough", "m", "e30="}), "0\n");
        EXPECT_TRUE(std::filesystem::is_empty("/tmp/cloud_data_cache"));
    }
}

// Two writers at once -------------------------------------------------------------------------------

struct Pair {
    const char *name;
    const char *path;
    std::string one;
    std::string other;
};

class TwoWriters : public testing::TestWithParam<Pair> {};

TEST_P(TwoWriters, LeaveAFileThatOneOfThemWrote) {
    const Device device;
    const Pair &row = GetParam();
    for (const bool full : {false, true}) {
        ASSERT_EQ(cloud_replaceFile(row.path, row.one), kReplaced);
        std::unique_ptr<NoRoom> room = full ? std::make_unique<NoRoom>() : nullptr;
        std::barrier<> start(2);
        const auto write = [&](const std::string &text) {
            start.arrive_and_wait();
            static_cast<void>(cloud_replaceFile(row.path, text));
        };
        for (int round = 0; round < 400; ++round) {
            std::thread second(write, row.other);
            write(row.one);
            second.join();
            ASSERT_THAT(file(row.path), AnyOf(row.one, row.other)) << full << ' ' << round;
        }
    }
}

// @return the names beside a file that begin with its own.
size_t left_beside(const std::filesystem::path &path) {
    const std::string beginning = path.string() + ".";
    return static_cast<size_t>(std::ranges::count_if(
        std::filesystem::directory_iterator(path.parent_path()),
        [&](const auto &entry) { return entry.path().string().starts_with(beginning); }));
}

std::string trimmed(const std::string &text) {
    return text.substr(0, text.find_last_not_of('\n') + 1);
}

TEST_P(TwoWriters, OfWhichOneIsKilledLeaveAWholeFileAndLittleBeside) {
    const Device device;
    const Pair &row = GetParam();
    for (int round = 0; round < 60; ++round) {
        ASSERT_EQ(cloud_replaceFile(row.path, row.one), kReplaced);
        std::unique_ptr<NoRoom> room = round % 2 == 1 ? std::make_unique<NoRoom>() : nullptr;
        const pid_t child = fork();
        while (child == 0) {
            static_cast<void>(cloud_replaceFile(row.path, row.other));
        }
        for (int i = 0; i < 20 + round; ++i) {
            static_cast<void>(cloud_replaceFile(row.path, row.one));
        }
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        // A kill may leave empty lines where a longer text was overwritten.
        ASSERT_THAT(trimmed(file(row.path)), AnyOf(trimmed(row.one), trimmed(row.other))) << round;
        ASSERT_LE(left_beside(row.path), 1U) << round;
        room.reset();
        ASSERT_EQ(cloud_replaceFile(row.path, row.one), kReplaced);
        ASSERT_EQ(left_beside(row.path), 0U) << round;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Files, TwoWriters,
    testing::Values(Pair{"Status", "/tmp/cloud.info", R"({"fw_status":3,"dwProgress":100})",
                         R"({"fw_status":2})"},
                    Pair{"Login", "/tmp/cloud.login", "1\n", "0\n"},
                    Pair{"Error", "/tmp/cloud.error", "-20103\n", "0\n"},
                    Pair{"Token", "/tmp/cloud.token", std::string(500, 't') + "\nu\n", "t\nu\n"},
                    Pair{"Passwd", "/tmp/passwd", "root:x\nalice:" + std::string(1500, 'y') + "\nbob:z\n",
                         "root:x\nbob:z\n"}),
    row_name<Pair>);

// Each goes by what it has read: half of the other's text would stay as a user's line.
TEST(TwoUnbinds, OnAFullDiskKeepEveryOtherLineWhole) {
    const Device device;
    const std::string alice = "alice:" + std::string(1500, 'a') + "\n";
    const std::string bob = "bob:" + std::string(900, 'b') + "\n";
    const std::string rest = "root:x\ncarol:" + std::string(700, 'c') + "\n";
    ASSERT_EQ(cloud_replaceFile("/tmp/passwd", alice + bob + rest), kReplaced);
    const NoRoom room;
    std::barrier<> start(2);
    const auto remove = [&](const char *user) {
        start.arrive_and_wait();
        cloud_account::_remove_passwd_user(user);
    };
    for (int round = 0; round < 400; ++round) {
        ASSERT_EQ(cloud_replaceFile("/tmp/passwd", alice + bob + rest), kReplaced);
        std::thread second(remove, "bob");
        remove("alice");
        second.join();
        ASSERT_THAT(file("/tmp/passwd"), AnyOf(rest, alice + rest, bob + rest)) << round;
    }
}

// Leftovers -----------------------------------------------------------------------------------------

TEST(Killed, WhatARunLeftBesideGoesWithTheNextWrite) {
    const Device device;
    const pid_t dead = fork();
    if (dead == 0) {
        _exit(0);
    }
    ASSERT_EQ(waitpid(dead, nullptr, 0), dead);
    const std::string base = "/tmp/cloud.token.";
    for (const std::string &name : {base + std::to_string(dead) + ".0", base + std::to_string(dead) + ".7",
                                    base + std::to_string(getppid()) + ".0", base + "old", base + "1x.0"}) {
        write_file(name, "");
    }
    ASSERT_EQ(cloud_replaceFile("/tmp/cloud.token", "text", kSecretMode), kReplaced);
    std::vector<std::string> left;
    for (const auto &entry : std::filesystem::directory_iterator("/tmp")) {
        if (entry.path().string().starts_with(base)) {
            left.push_back(entry.path().string().substr(base.size()));
        }
    }
    EXPECT_THAT(left, testing::UnorderedElementsAre(std::to_string(getppid()) + ".0", "old", "1x.0"));
}

// The image -----------------------------------------------------------------------------------------

struct Target {
    const char *name;
    Thing thing;
    const char *record = nullptr;  // the image that an earlier run noted
};

class HostileTarget : public testing::TestWithParam<Target> {};

TEST_P(HostileTarget, FailsTheDownloadBeforeItsTransfer) {
    Device device;
    ImageServer server(device.journal());
    server.put("/fw.bin", firmware::pattern(5000));
    firmware::offer(device, server.url("/fw.bin"));
    firmware::put_status_file();
    if (GetParam().thing == Thing::kStrangersFile && !may_make_strangers()) {
        GTEST_SKIP() << "needs a second user id";
    }
    place(GetParam().thing, kPartial);
    if (GetParam().record != nullptr) {
        write_file(kNameRecord, GetParam().record);
    }
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    expect_console(device, "open /tmp/cloud_up_img.bin failed.");
    // What stays of another image must not become a part of this one in the next run.
    EXPECT_EQ(file(kNameRecord), GetParam().record != nullptr ? GetParam().record : "/tmp/fw.bin");
    EXPECT_THAT(firmware::requests(device), ElementsAre("HEAD  200 0"));
    EXPECT_EQ(file(kVictim), kVictimText);
    EXPECT_EQ(file(kFinished), "absent");
    EXPECT_EQ(file(firmware::kDownloadLock), "absent");
    EXPECT_THAT(file(firmware::kStatusFile), HasSubstr("\"fw_status\":\t20000"));
}

INSTANTIATE_TEST_SUITE_P(Things, HostileTarget,
                         testing::Values(Target{"Link", Thing::kLink}, Target{"HardLink", Thing::kHardLink},
                                         Target{"Fifo", Thing::kFifo}, Target{"Folder", Thing::kFolder},
                                         Target{"Strangers", Thing::kStrangersFile},
                                         Target{"FolderAfterAnother", Thing::kFolder, "/tmp/old.bin"}),
                         row_name<Target>);

// A mounted file cannot be removed.
TEST(MountedTarget, LosesWhatItHeldOfAnotherImage) {
    Device device;
    ImageServer server(device.journal());
    server.put("/fw.bin", firmware::pattern(5000));
    firmware::offer(device, server.url("/fw.bin"));
    write_file(kNameRecord, "/tmp/old.bin");
    write_file("/tmp/mounted", std::string(400, 'o'));
    write_file(kPartial, "");
    ASSERT_EQ(mount("/tmp/mounted", kPartial.c_str(), nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    EXPECT_EQ(umount(kPartial.c_str()), 0);
    EXPECT_THAT(firmware::requests(device), ElementsAre("HEAD  200 0", "GET  200 5000"));
    EXPECT_EQ(file("/tmp/mounted"), firmware::pattern(5000));
}

TEST(HostileRecord, AFolderInItsPlaceDoesNotOpen) {
    Device device;
    ImageServer server(device.journal());
    server.put("/fw.bin", firmware::pattern(5000));
    firmware::offer(device, server.url("/fw.bin"));
    firmware::put_status_file();
    std::filesystem::create_directory("/tmp/cloud_img.size");
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    expect_console(device, "open /tmp/cloud_img.size failed.");
    EXPECT_EQ(file(kNameRecord), "absent");
    EXPECT_EQ(file(kFinished), firmware::pattern(5000));
}

TEST(HostileServer, ARedirectDoesNotLeadOutOfHttps) {
    Device device;
    ImageServer plain(device.journal());
    plain.put("/fw.bin", firmware::pattern(5000));
    const json redirect{{"status", 302}, {"location", plain.url("/fw.bin")}};
    const json scenario{{"tls", true}, {"rules", json::array({json{{"do", redirect}}})}};
    const auto secure = emulator::make_image_server(device.journal(), scenario);
    firmware::offer(device, secure->url("/fw.bin"));
    firmware::put_status_file();
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    EXPECT_THAT(firmware::requests(device), testing::Each(HasSubstr(" 302 ")));
    EXPECT_EQ(file(kFinished), "absent");
}

// More than was announced: the quotient as it is.
TEST(HostileServer, APercentageMayPassAHundred) {
    Device device;
    ImageServer server(device.journal());
    server.put("/fw.bin", firmware::pattern(5000));
    firmware::offer(device, server.url("/fw.bin"));
    firmware::put_status_file();
    write_file(kNameRecord, "/tmp/fw.bin");
    write_file(kPartial, firmware::pattern(15000));
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    EXPECT_THAT(file(firmware::kStatusFile), HasSubstr("\"dwProgress\":\t300"));
}

// Calls that fail -----------------------------------------------------------------------------------

TEST(FailingStore, ALoginThatWasNotStoredIsAGuests) {
    Device device;
    ASSERT_EQ(printed(device, {"bind", kOwner, device.encrypt(kOwnerPassword)}), "0\n");
    ASSERT_EQ(printed(device, {"login", kOwner, device.encrypt(kOwnerPassword)}), "0\n");
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(getenv("CLOUD_STORE_FILE"), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db,
                           "CREATE TRIGGER refuse BEFORE INSERT ON object WHEN NEW.name='login' "
                           "BEGIN SELECT RAISE(ABORT,'no'); END",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    EXPECT_EQ(printed(device, {"login", "bob@example.com", device.encrypt("Secret-2")}), "0\n");
    EXPECT_EQ(device.store("account").at("userName"), kOwner);
}

TEST(FailingMemory, KeepsTheOlderFactoryReport) {
    const Device device(json{{"listening", false}});
    DeviceStatus status{1, 0};
    cloud_setDeviceStatus(&status);
    AccountList account{};
    account.count = 1;
    strcpy(account.userName, "alice");
    strcpy(account.password, "cipher");
    cloud_insertAccount(&account);
    static int left = 0;
    cJSON_Hooks hooks{[](size_t size) -> void * { return --left == 0 ? nullptr : malloc(size); }, free};
    cJSON_InitHooks(&hooks);
    int complete = 0;
    for (int nth = 1; nth <= 60; ++nth) {
        write_file("/tmp/factory.part", "older");
        left = nth;
        EXPECT_EQ(cloud_msg_factory(), 0);
        const std::string report = file("/tmp/factory.part");
        complete += report != "older" ? 1 : 0;
        EXPECT_THAT(report, AnyOf(std::string("older"),
                                  "{\n\t\"username\":\t\"alice\",\n\t\"password\":\t\"cipher\",\n"
                                  "\t\"need_unbind\":\t1\n}\n"));
    }
    EXPECT_GT(complete, 0);
    cJSON_InitHooks(nullptr);
}

// No copy of a plain password is released as it is.
TEST(Secrets, DoNotStayInTheRequestsTree) {
    const Device device;
    static int found = 0;
    cJSON_Hooks hooks{
        malloc, [](void *memory) {
            if (memory != nullptr && memmem(memory, malloc_usable_size(memory), "Secret-1", 8) != nullptr) {
                ++found;
            }
            free(memory);
        }};
    cJSON_InitHooks(&hooks);
    const auto request = cloud_account::_format_bind_msg_req_nocrypt("YWxpY2U=", "U2VjcmV0LTE=");
    cJSON_InitHooks(nullptr);
    EXPECT_THAT(request.get(), HasSubstr("\"cloudPassword\":\"Secret-1\""));
    EXPECT_EQ(found, 0);
}

}  // namespace
