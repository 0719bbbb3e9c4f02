// What a command costs, and the budget.
#include "cost.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "budget.h"
#include "device.h"
#include "plot.h"
#include "race.h"

namespace emulator {
namespace {

struct Limits {
    const char *name;
    const char *limits;
    std::vector<std::string> over;
};

void PrintTo(const Limits &row, std::ostream *out) {
    *out << row.name;
}

class Budget : public testing::TestWithParam<Limits> {};

TEST_P(Budget, NamesEachFigureAboveItsLimit) {
    const json cost = json::parse(R"({"printed": "0", "status": 0, "flash": {"files": {"p": 100, "q": 5}},
                                      "wire": {"messages": 3}})");
    EXPECT_EQ(over_budget(cost, json::parse(GetParam().limits)), GetParam().over);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Budget,
    testing::Values(Limits{"at_the_limit", R"({"printed": "0", "flash": {"files": {"p": 100}}})", {}},
                    Limits{"below_it", R"({"wire": {"messages": 4}})", {}},
                    Limits{"two_above",
                           R"({"flash": {"files": {"p": 99}}, "wire": {"messages": 2}})",
                           {"flash.files.p is 100, the budget is 99", "wire.messages is 3, the budget is 2"}},
                    Limits{"another_text", R"({"printed": "1"})", {R"(printed is "0", the budget is "1")"}},
                    Limits{"not_measured",
                           R"({"memory": {"resident_kib": 9}})",
                           {R"(memory is not measured, the budget is {"resident_kib":9})"}}),
    [](const auto &row) { return row.param.name; });

// Typed by hand: three bytes by `echo`, to a file that gets its name once it is whole; a child's do not
// count.
TEST(Cost, SeesWhatAProgramWritesUnderItsLastName) {
    Device device;
    const json cost = measure_cost(device, {{"sh", "-c",
                                             "cd /tmp; echo ab >a.new; echo cd >a.new; sh -c 'echo z >b'; "
                                             "exec mv a.new a"},
                                            "rm -f /tmp/a /tmp/b",
                                            {},
                                            {},
                                            0});
    EXPECT_EQ(cost.at("written").at("files"), json({{"/tmp/a", 6}})) << cost;
    EXPECT_EQ(cost.at("status"), 0);
    EXPECT_GE(cost.at("system_calls").at("by_name").at("openat"), 2);
    EXPECT_GT(cost.at("memory").at("resident_kib"), cost.at("memory").at("private_kib"));
}

TEST(Cost, CountsTheMessagesOfTheProgram) {
    Device device;
    const json cost = measure_cost(device, {{"cloud_msg", "getLogicStatus"}, "", {"/bin/true"}, {}, 2});
    EXPECT_EQ(cost.at("printed"), "0");
    const json &messages = cost.at("wire").at("by_name");
    EXPECT_EQ(messages.at("to broker: logic"), json({{"messages", 1}, {"bytes", 8}})) << messages;
    EXPECT_EQ(cost.at("wire").at("messages"), 3) << messages;
    EXPECT_GT(cost.at("time").at("against").at("wall").at("median"), 0);
}

TEST(Cost, TellsTheMiddleOfTheRoundsQuotients) {
    const std::vector<Times> ours{{2, 0}, {9, 0}, {6, 0}, {4, 0}, {8, 0}};
    const std::vector<Times> theirs{{1, 0}, {1, 0}, {2, 0}, {2, 0}, {2, 0}};
    const Spread wall = ratio(ours, theirs, &Times::wall_us);  // 2, 9, 3, 2, 4
    EXPECT_THAT((std::vector{wall.low, wall.median, wall.high}), testing::ElementsAre(2, 3, 4));
}

TEST(Cost, DrawsAPowerOfTenAsAnEqualStep) {
    const std::string svg = plot("t", "w", "c", {{"a<b", {{1, 1}, {10, 10}, {100, 100}}}});
    EXPECT_THAT(svg, testing::HasSubstr("points=\"70,350 345,195 620,40 \""));
    EXPECT_THAT(svg, testing::HasSubstr("a&lt;b"));
}

TEST(Cost, EndsWithOneAndALineWhereTheBudgetIsExceeded) {
    const std::string extender = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "extender";
    std::ofstream("/tmp/budget.json") << R"({"device": {"true": {"limits": {"status": 0}},
                                             "false x": {"limits": {"status": 0}}}})";
    const auto run = [&](std::vector<std::string> more) {
        more.insert(more.begin(), {extender, "cost", "--rounds", "0", "--budget", "/tmp/budget.json"});
        return Process(std::move(more)).wait();
    };
    EXPECT_EQ(run({"--json", "--", "true"}).status, 0);
    const auto all = run({"--json"});
    EXPECT_EQ(all.status, 1);
    EXPECT_EQ(all.err, "false x: status is 1, the budget is 0\n");
    EXPECT_EQ(json::parse(all.out).size(), 2U);
    EXPECT_EQ(run({"--build", "none", "--", "true"}).status, 125);
}

}  // namespace
}  // namespace emulator
