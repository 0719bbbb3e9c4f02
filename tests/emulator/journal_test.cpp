// The journal in memory, and what reads one that was written.
#include "journal.h"

#include <gmock/gmock.h>

#include <fstream>
#include <future>

#include "emulator_support.h"
#include "journal_reader.h"

namespace emulator {
namespace {

TEST(JournalTest, KeepsTheLatestRecordsInOrderOfTime) {
    Journal journal;
    for (size_t i = 0; i < kKeptRecords + 5; ++i) {
        journal.add("event", json::object());
    }
    const std::vector<json> kept = journal.all();
    ASSERT_EQ(kept.size(), kKeptRecords);
    EXPECT_EQ(kept.front().at("seq"), 6);
    EXPECT_TRUE(std::is_sorted(kept.begin(), kept.end(),
                               [](const json &a, const json &b) { return a.at("t") < b.at("t"); }));
    EXPECT_EQ(journal.after(journal.last() - 1), std::vector{kept.back()});
    EXPECT_EQ(journal.after(0), kept);
    for (const char letter : {'a', 'b', 'c'}) {
        journal.add("message", {{"body", std::string(kKeptBytes / 2, letter)}});
    }
    EXPECT_THAT(journal.all(), testing::ElementsAre(holds({{"body", std::string(kKeptBytes / 2, 'c')}})));
}

TEST(JournalReaderTest, PassesOverWhatIsNoRecord) {
    const char *const path = "/tmp/journal";
    std::ofstream(path) << "before\n{\"seq\":1,\"kind\":\"event\"}\n[5]\n{\"kind\":5}\n{\"kind\"\n"
                        << "{\"seq\":2,\"kind\":\"close\"}\n{\"seq\":3,\"kind\":\"clo";
    JournalReader reader{std::string(path)};
    EXPECT_THAT(*reader.next(), holds({{"seq", 1}}));
    EXPECT_THAT(*reader.next(), holds({{"seq", 2}}));
    EXPECT_FALSE(reader.next().has_value());
    EXPECT_EQ(reader.foreign(), 4);
    EXPECT_THROW(JournalReader("/nosuch"), std::system_error);
}

TEST(JournalReaderTest, FollowsAFileThatGrowsAndBeginsAnew) {
    const char *const path = "/tmp/journal";
    std::ofstream file(path);
    JournalReader reader(path, true);
    const auto next = [&] { return std::async(std::launch::async, [&] { return reader.next(); }); };
    auto record = next();
    file << R"({"kind":"a long first record",)" << std::flush << R"("seq":1})" << std::endl;
    EXPECT_THAT(*record.get(), holds({{"seq", 1}}));
    record = next();
    std::ofstream(path) << R"({"kind":"b"})" << std::endl;
    EXPECT_THAT(*record.get(), holds({{"kind", "b"}}));
}

}  // namespace
}  // namespace emulator
