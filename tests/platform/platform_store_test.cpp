// The reference configuration store: what it refuses, what it keeps byte for byte, and what survives.

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <functional>

#include "platform_support.h"
#include "wrapper.h"

using namespace platform_test;

namespace {

constexpr uintptr_t kSetStatus = 0x120007;
constexpr uintptr_t kGetStatus = 0x120008;
constexpr uintptr_t kGetUpgrade = 0x12000a;
constexpr uintptr_t kGetTime = 0x120004;
constexpr uintptr_t kInsertAccount = 0x12000d;
constexpr uintptr_t kRemoveAccount = 0x12000e;
constexpr uintptr_t kGetAccount = 0x12000f;
constexpr uintptr_t kClearAccounts = 0x120010;

uintptr_t address(const void *bytes) {
    return reinterpret_cast<uintptr_t>(bytes);
}

WrpOpEntry in(uintptr_t id, const Bytes &bytes) {
    return {id, address(bytes.data()), bytes.size(), 0, 0};
}
WrpOpEntry out(uintptr_t id, Bytes &bytes) {
    return {id, 0, 0, address(bytes.data()), bytes.size()};
}

int group(std::vector<WrpOpEntry> entries, int direction) {
    return wrpOpGrpDo(entries.data(), static_cast<int>(entries.size() * sizeof(WrpOpEntry)), direction);
}

int put(uintptr_t id, const Bytes &bytes) {
    return group({in(id, bytes)}, WRP_WRITE);
}

Bytes get(uintptr_t id, size_t size) {
    Bytes bytes(size, 0xaa);
    EXPECT_EQ(group({out(id, bytes)}, WRP_READ), 0);
    return bytes;
}

Bytes account(const std::string &name, const std::string &password) {
    Bytes bytes(648);
    std::copy(name.begin(), name.end(), bytes.begin() + 4);
    std::copy(password.begin(), password.end(), bytes.begin() + 133);
    return bytes;
}

// What any store must do is checked by "extender check platform" (tests/check.cmake). Here is what
// this one does beyond: its file, its modes, and calls with more than they need.

TEST(Store, RefusesSuperfluousBuffers) {
    const StateFolder state;
    ASSERT_EQ(put(kSetStatus, {1, 2}), 0);
    Bytes buffer(8, 0xaa);
    const uintptr_t at = address(buffer.data());
    EXPECT_NE(group({{kGetStatus, at, 0, at, 2}}, WRP_READ), 0);
    EXPECT_NE(group({{kSetStatus, at, 2, at, 0}}, WRP_WRITE), 0);
    EXPECT_NE(group({{kClearAccounts, at, 0, 0, 0}}, WRP_WRITE), 0);
    EXPECT_EQ(buffer, Bytes(8, 0xaa));
    EXPECT_EQ(get(kGetStatus, 2), (Bytes{1, 2}));
}

// Records ------------------------------------------------------------------------------------------

TEST(Store, ReadsZerosAndMakesNothingWhileNothingIsStored) {
    const StateFolder state;
    EXPECT_EQ(get(kGetUpgrade, 2648), Bytes(2648));
    EXPECT_EQ(get(kGetAccount, 648), Bytes(648));
    EXPECT_FALSE(std::filesystem::exists(state.root() / "made"));
    write_file(state.store(), "");  // its first writer was killed
    EXPECT_EQ(get(kGetStatus, 2), Bytes(2));
    EXPECT_EQ(put(kSetStatus, {1, 0}), 0);
    EXPECT_EQ(get(kGetStatus, 2), (Bytes{1, 0}));
}

TEST(Store, CountsNoNamelessAccountAndOverwritesWhatIsRemoved) {
    const StateFolder state;
    ASSERT_EQ(put(kInsertAccount, account("", "nameless")), 0);
    EXPECT_EQ(get(kGetAccount, 648)[0] + get(kGetAccount, 648)[3], 0);
    ASSERT_EQ(put(kInsertAccount, account("carol", "verysecret")), 0);
    EXPECT_EQ(group({{kClearAccounts, 0, 0, 0, 0}}, WRP_WRITE), 0);
    EXPECT_THAT(text_of(state.store()), testing::Not(testing::HasSubstr("verysecret")));
}

TEST(Store, IsForItsUserAlone) {
    const StateFolder state;
    umask(0);
    ASSERT_EQ(put(kSetStatus, {1, 1}), 0);
    EXPECT_EQ(mode_of(state.folder()), 0700U);
    EXPECT_EQ(mode_of(state.store()), 0600U);
}

// A file that is none --------------------------------------------------------------------------------

struct BadFile {
    const char *name;
    std::function<void(const StateFolder &state)> make;
};
void PrintTo(const BadFile &row, std::ostream *out) {
    *out << row.name;
}

void run_sql(const StateFolder &state, const char *sql) {
    sqlite3 *db = nullptr;
    EXPECT_EQ(sqlite3_open(state.store().c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_close(db), SQLITE_OK);
}

class StoreFails : public testing::TestWithParam<BadFile> {};

TEST_P(StoreFails, WithACode) {
    const StateFolder state;
    GetParam().make(state);
    Bytes bytes(2);
    EXPECT_NE(group({out(kGetStatus, bytes)}, WRP_READ), 0);
    EXPECT_NE(put(kRemoveAccount, account("a", "")), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Files, StoreFails,
    testing::Values(
        BadFile{"Folder", [](const StateFolder &s) { std::filesystem::create_directories(s.store()); }},
        BadFile{"BelowAFile", [](const StateFolder &s) { write_file(s.folder(), "a file"); }},
        BadFile{"Link",
                [](const StateFolder &s) {
                    ASSERT_EQ(put(kSetStatus, {1, 1}), 0);
                    std::filesystem::rename(s.store(), s.root() / "elsewhere");
                    std::filesystem::create_symlink(s.root() / "elsewhere", s.store());
                }},
        BadFile{"SecondName",
                [](const StateFolder &s) {
                    ASSERT_EQ(put(kSetStatus, {1, 1}), 0);
                    std::filesystem::create_hard_link(s.store(), s.root() / "elsewhere");
                }},
        BadFile{"Strangers",
                [](const StateFolder &s) {
                    ASSERT_EQ(put(kSetStatus, {1, 1}), 0);
                    if (chown(s.store().c_str(), 65534, 65534) != 0) {
                        std::filesystem::remove_all(s.folder());
                        write_file(s.folder(), "only root can make a stranger's");
                    }
                }},
        BadFile{"Garbage", [](const StateFolder &s) { write_file(s.store(), std::string(9000, 'x')); }},
        BadFile{"PathTooLong",
                [](const StateFolder &) { setenv("CLOUD_STORE_FILE", std::string(5000, 'p').c_str(), 1); }},
        BadFile{"OtherVersion",
                [](const StateFolder &s) {
                    ASSERT_EQ(put(kSetStatus, {1, 1}), 0);
                    run_sql(s, "PRAGMA user_version=2");
                }},
        BadFile{"RecordsOfOtherLength",
                [](const StateFolder &s) {
                    ASSERT_EQ(put(kSetStatus, {1, 1}), 0);
                    run_sql(s,
                            "UPDATE object SET record=x'010203'; "
                            "INSERT INTO object VALUES('account',x'00')");
                }}),
    [](const auto &row) { return std::string(row.param.name); });

// The tool -------------------------------------------------------------------------------------------

std::string store_tool(const std::string &arguments) {
    return shell("cloud_store " + arguments).out;
}

TEST(StoreTool, PutsFieldsAtTheirOffsets) {
    const StateFolder state;
    EXPECT_EQ(store_tool(R"(set account '{"userName":"a@b.c","password":"Zm9v"}')"), "");
    EXPECT_EQ(store_tool("get account | tr -d '\\n'"), R"({"count":1,"userName":"a@b.c","password":"Zm9v"})");
    const Bytes expected = account("a@b.c", "Zm9v");
    const Bytes stored = get(kGetAccount, 648);
    EXPECT_TRUE(std::equal(expected.begin() + 4, expected.end(), stored.begin() + 4));

    EXPECT_EQ(store_tool(R"(set upgrade-info '{"location":1,"type":255,"releaseDate":"D","version":"V",)"
                         R"("releaseLog":"L","releaseLogUrl":"U","url":"http"}')"),
              "");
    const Bytes info = get(kGetUpgrade, 2648);
    const std::vector<std::pair<size_t, char>> marks{{0, '\1'},  {1, '\xff'}, {2, 'D'},    {276, 'V'},
                                                     {341, 'L'}, {1366, 'U'}, {1623, 'h'}, {1627, '\0'}};
    for (const auto &[offset, mark] : marks) {
        EXPECT_EQ(static_cast<char>(info[offset]), mark) << offset;
    }
}

TEST(StoreTool, KeepsMembersThatAreNotGiven) {
    const StateFolder state;
    EXPECT_EQ(store_tool(R"(set device-info '{"kind":3,"alias":"Hall"}')"), "");
    EXPECT_EQ(store_tool(R"(set device-info '{"alias":"K"}')"), "");
    EXPECT_EQ(get(0x12000c, 66)[0], 3);
    EXPECT_EQ(get(0x12000c, 66)[1], 'K');
    EXPECT_EQ(get(0x12000c, 66)[3], 0);  // nothing of the longer alias is left
}

TEST(StoreTool, ClearsOneRecordOrAll) {
    const StateFolder state;
    ASSERT_EQ(put(kInsertAccount, account("carol", "secret")), 0);
    EXPECT_EQ(store_tool(R"(set upgrade-time '{"seconds":4294967295,"flag":1}')"), "");
    EXPECT_EQ(store_tool("clear account"), "");
    EXPECT_EQ(get(kGetAccount, 648), Bytes(648));
    EXPECT_EQ(store_tool("get upgrade-time | tr -d '\\n'"), R"({"seconds":4294967295,"flag":1})");
    EXPECT_EQ(store_tool("clear"), "");
    EXPECT_EQ(get(kGetTime, 8), Bytes(8));
    EXPECT_THAT(store_tool("dump"), testing::HasSubstr(R"("need_unbind":	0)"));
}

TEST(StoreTool, RefusesWhatDoesNotFit) {
    const StateFolder state;
    const std::string longest(128, 'n');
    for (const std::string &line : std::vector<std::string>{
             "", "get", "get nothing", "set login", "dump login", "clear nothing", "get login extra",
             R"(set login '[]')", R"(set login '{"role":1}x')", R"(set login '{"role":256}')",
             R"(set login '{"role":-1}')", R"(set login '{"role":1.5}')", R"(set login '{"role":"1"}')",
             R"(set login '{"userName":1}')", R"(set login '{"Role":1}')",
             R"(set login '{"userName":"a\u0000b"}')", R"(set login '{"userName":"a\\\u0000b"}')",
             R"(set login '{"userName":")" + longest + R"(n"}')"}) {
        const Ran ran = shell("cloud_store " + line);
        EXPECT_EQ(ran.status, 2) << line;
        EXPECT_NE(ran.out, "") << line;
    }
    EXPECT_FALSE(std::filesystem::exists(state.store()));
    EXPECT_EQ(store_tool("get bogus"), "cloud_store: there is no record bogus\n");
    EXPECT_EQ(store_tool(R"(set login '{"userName":"a\\u0000b"}')"), "") << "a backslash, then letters";
    EXPECT_EQ(store_tool(R"(set login '{"userName":")" + longest + R"("}')"), "");
    EXPECT_EQ(get(0x120002, 130)[128], 'n');
}

}  // namespace
