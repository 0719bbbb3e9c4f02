// The reference configuration store: what it refuses, what it keeps byte for byte, and what survives.

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <thread>

#include "platform_support.h"
#include "wrapper.h"

using namespace platform_test;

namespace {

constexpr uintptr_t kSetStatus = 0x120007;
constexpr uintptr_t kGetStatus = 0x120008;
constexpr uintptr_t kSetUpgrade = 0x120009;
constexpr uintptr_t kGetUpgrade = 0x12000a;
constexpr uintptr_t kSetTime = 0x120003;
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

int32_t stored_accounts() {
    const Bytes bytes = get(kGetAccount, 648);
    int32_t count = 0;
    memcpy(&count, bytes.data(), sizeof(count));
    return count;
}

// Refusals -----------------------------------------------------------------------------------------

struct BadCall {
    const char *name;
    int direction;
    // Spoils a good call: one entry that reads or writes the device status.
    std::function<void(WrpOpEntry &entry, int &length, int &direction)> spoil;
    bool noEntries = false;
};
void PrintTo(const BadCall &row, std::ostream *out) {
    *out << row.name;
}

class StoreRefuses : public testing::TestWithParam<BadCall> {};

TEST_P(StoreRefuses, AndChangesNothing) {
    const StateFolder state;
    ASSERT_EQ(put(kSetStatus, {1, 2}), 0);
    const bool reads = GetParam().direction == WRP_READ;
    Bytes buffer(8, 0xaa);
    WrpOpEntry entry{kSetStatus, address(buffer.data()), 2, 0, 0};
    if (reads) {
        entry = {kGetStatus, 0, 0, address(buffer.data()), 2};
    }
    int length = sizeof(entry);
    int direction = GetParam().direction;
    GetParam().spoil(entry, length, direction);
    EXPECT_NE(wrpOpGrpDo(GetParam().noEntries ? nullptr : &entry, length, direction), 0);
    EXPECT_EQ(buffer, Bytes(8, 0xaa));
    EXPECT_EQ(get(kGetStatus, 2), (Bytes{1, 2}));
}

INSTANTIATE_TEST_SUITE_P(
    BadCalls, StoreRefuses,
    testing::Values(
        BadCall{"NoEntries", WRP_READ, [](auto &, auto &, auto &) {}, true},
        BadCall{"LengthZero", WRP_READ, [](auto &, auto &length, auto &) { length = 0; }},
        BadCall{"LengthNegative", WRP_READ, [](auto &, auto &length, auto &) { length = -length; }},
        BadCall{"LengthNoMultiple", WRP_READ, [](auto &, auto &length, auto &) { length -= 1; }},
        BadCall{"DirectionUnknown", WRP_READ, [](auto &, auto &, auto &direction) { direction = 2; }},
        BadCall{"WriteIdInRead", WRP_READ, [](auto &entry, auto &, auto &) { entry.objectId = kSetStatus; }},
        BadCall{"ReadIdInWrite", WRP_WRITE, [](auto &entry, auto &, auto &) { entry.objectId = kGetStatus; }},
        BadCall{"UnknownRead", WRP_READ, [](auto &entry, auto &, auto &) { entry.objectId = 0x120006; }},
        BadCall{"UnknownWrite", WRP_WRITE, [](auto &entry, auto &, auto &) { entry.objectId = 0x120011; }},
        BadCall{"NullOutput", WRP_READ, [](auto &entry, auto &, auto &) { entry.output = 0; }},
        BadCall{"NullInput", WRP_WRITE, [](auto &entry, auto &, auto &) { entry.input = 0; }},
        BadCall{"OutputShort", WRP_READ, [](auto &entry, auto &, auto &) { entry.outputLength = 1; }},
        BadCall{"OutputLong", WRP_READ, [](auto &entry, auto &, auto &) { entry.outputLength = 3; }},
        BadCall{"InputShort", WRP_WRITE, [](auto &entry, auto &, auto &) { entry.inputLength = 1; }},
        BadCall{"InputLong", WRP_WRITE, [](auto &entry, auto &, auto &) { entry.inputLength = 3; }},
        BadCall{"ReadWithInput", WRP_READ, [](auto &entry, auto &, auto &) { entry.input = entry.output; }},
        BadCall{"WriteWithOutput", WRP_WRITE,
                [](auto &entry, auto &, auto &) { entry.output = entry.input; }},
        BadCall{"ClearWithInput", WRP_WRITE,
                [](auto &entry, auto &, auto &) { entry.objectId = kClearAccounts; }}),
    [](const auto &row) { return std::string(row.param.name); });

TEST(Store, WritesNothingOfAGroupWithOneBadEntry) {
    const StateFolder state;
    EXPECT_NE(group({in(kSetStatus, {1, 1}), in(kSetTime, Bytes(7))}, WRP_WRITE), 0);
    EXPECT_FALSE(std::filesystem::exists(state.folder()));
    ASSERT_EQ(put(kSetStatus, {5, 6}), 0);
    EXPECT_NE(group({in(kSetStatus, {1, 1}), in(0x120099, Bytes(8))}, WRP_WRITE), 0);
    EXPECT_EQ(get(kGetStatus, 2), (Bytes{5, 6}));
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

TEST(Store, KeepsEachRecordByteForByte) {
    struct Row {
        uintptr_t writeId, readId;
        size_t size;
    };
    constexpr std::array kRows{Row{0x120001, 0x120002, 130}, Row{0x120003, 0x120004, 8},
                               Row{0x120007, 0x120008, 2},   Row{0x120009, 0x12000a, 2648},
                               Row{0x12000b, 0x12000c, 66},  Row{0x12000d, 0x12000f, 648}};
    const StateFolder state;
    const auto record = [](const Row &row) {
        Bytes bytes(row.size);
        auto value = static_cast<unsigned>(row.writeId);
        std::generate(bytes.begin(), bytes.end(),
                      [&value] { return (value = value * 109 + 89) >> 3 & 0xff; });
        return bytes;
    };
    for (const Row &row : kRows) {
        ASSERT_EQ(put(row.writeId, record(row)), 0) << row.size;
    }
    for (const Row &row : kRows) {
        Bytes expected = record(row);
        if (row.writeId == kInsertAccount) {
            const int32_t count = 1;  // whatever the writer left there
            memcpy(expected.data(), &count, sizeof(count));
        }
        EXPECT_EQ(get(row.readId, row.size), expected) << row.size;
    }
}

TEST(Store, HoldsAtMostOneAccount) {
    const StateFolder state;
    ASSERT_EQ(put(kInsertAccount, account("Alice", "one")), 0);
    ASSERT_EQ(put(kInsertAccount, account("bob", "two")), 0);
    Bytes expected = account("bob", "two");
    expected[std::endian::native == std::endian::little ? 0 : 3] = 1;
    EXPECT_EQ(get(kGetAccount, 648), expected);
    for (const char *other : {"Alice", "bo", "bobby", "BOB", ""}) {
        EXPECT_EQ(put(kRemoveAccount, account(other, "two")), 0) << other;
        EXPECT_EQ(stored_accounts(), 1) << other;
    }
    EXPECT_EQ(put(kRemoveAccount, account("bob", "")), 0);
    EXPECT_EQ(get(kGetAccount, 648), Bytes(648));

    ASSERT_EQ(put(kInsertAccount, account("", "nameless")), 0);
    EXPECT_EQ(stored_accounts(), 0);
    ASSERT_EQ(put(kInsertAccount, account("carol", "verysecret")), 0);
    EXPECT_EQ(group({{kClearAccounts, 0, 0, 0, 0}}, WRP_WRITE), 0);
    EXPECT_EQ(get(kGetAccount, 648), Bytes(648));
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

// Several processes ----------------------------------------------------------------------------------

// Both records of one group carry the same mark.
int put_marked(unsigned char mark) {
    return group({in(kSetUpgrade, Bytes(2648, mark)), in(kSetTime, Bytes(8, mark))}, WRP_WRITE);
}

// @return the mark; -1 when the two records are of two groups, or the read fails.
int get_mark() {
    Bytes upgrade(2648);
    Bytes time(8);
    if (group({out(kGetUpgrade, upgrade), out(kGetTime, time)}, WRP_READ) != 0) {
        return -1;
    }
    const bool whole = upgrade == Bytes(2648, upgrade[0]) && time == Bytes(8, upgrade[0]);
    return whole ? upgrade[0] : -1;
}

int write_many(unsigned char mark, int times) {
    for (int i = 0; i < times; ++i) {
        if (put_marked(mark) != 0) {
            return 1;
        }
    }
    return 0;
}

TEST(Store, ServesTwoWritersAndAReaderAtOnce) {
    const StateFolder state;
    Child first([] { return write_many(1, 60); });
    Child second([] { return write_many(2, 60); });
    for (int i = 0; i < 200; ++i) {
        EXPECT_NE(get_mark(), -1);
    }
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
    EXPECT_GT(get_mark(), 0);
}

TEST(Store, HoldsTheOldOrTheNewGroupAfterAKill) {
    const StateFolder state;
    for (unsigned round = 0; round < 15; ++round) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        Child writer([&ends] {
            for (unsigned char mark = 1;; mark = mark % 200 + 1) {
                if (put_marked(mark) != 0 || write(ends[1], &mark, 1) != 1) {
                    return 1;
                }
            }
        });
        close(ends[1]);
        unsigned char acknowledged = 0;
        for (unsigned i = 0; i <= round % 3; ++i) {
            ASSERT_EQ(read(ends[0], &acknowledged, 1), 1);
        }
        for (unsigned i = 0; i < round * 97 % 500; ++i) {
            std::this_thread::yield();  // to be at another place of the next write each round
        }
        writer.kill();
        for (unsigned char more = 0; read(ends[0], &more, 1) == 1;) {
            acknowledged = more;
        }
        close(ends[0]);
        const int mark = get_mark();
        EXPECT_TRUE(mark == acknowledged || mark == acknowledged % 200 + 1)
            << mark << " after " << +acknowledged;
        EXPECT_EQ(write_many(201, 1), 0);
    }
}

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
    EXPECT_EQ(store_tool("get bogus"), "cloud_store: no record bogus\n");
    EXPECT_EQ(store_tool(R"(set login '{"userName":"a\\u0000b"}')"), "") << "a backslash, then letters";
    EXPECT_EQ(store_tool(R"(set login '{"userName":")" + longest + R"("}')"), "");
    EXPECT_EQ(get(0x120002, 130)[128], 'n');
}

}  // namespace
