// A record: taken by the tap, masked, replayed by the program, made a scenario.
#include "replay.h"

#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "await.h"
#include "conversation.h"
#include "device.h"
#include "foreign_broker.h"
#include "journal_reader.h"
#include "mask.h"
#include "scenario_writer.h"

namespace emulator {
namespace {

constexpr const char *kAlias = "YSBwaG9uZQ==";

// A life of the device with an answer that is late and one that is an error; returns what was printed.
std::vector<std::string> _live(Device &device, const char *alias = kAlias) {
    std::vector<std::string> printed;
    for (const std::vector<std::string> &words : {std::vector<std::string>{"online"},
                                                  {"bind", "alice@example.com", device.encrypt("Secret-1")},
                                                  {"getDevToken"},
                                                  {"passthrough", "getWeather", "e30="},
                                                  {"alias", alias},
                                                  {"getLogicStatus"}}) {
        printed.push_back(device.cloud_msg(words).out);
    }
    return printed;
}

struct Record {
    std::vector<std::string> printed;
    std::vector<json> lines;
};

Record _taken_by_the_tap() {
    const json late{{"on", "request"}, {"method", "getWeather"}, {"do", {{"pending", 2}}}};
    const json refused{{"on", "request"}, {"method", "updateAlias"}, {"do", {{"cloud_error", -20571}}}};
    Device device(json{{"first_id", 40}, {"rules", json::array({late, refused})}});
    Process tap({std::filesystem::read_symlink("/proc/self/exe").parent_path() / "kxcc-tap", "/tmp/record"});
    EXPECT_TRUE(test::await([] {
        std::error_code none;
        return std::filesystem::file_size("/tmp/record", none) > 1 && !none;
    })) << tap.err();
    Record record;
    record.printed = _live(device);
    tap.kill(SIGTERM);
    EXPECT_EQ(tap.wait().status, 0);
    record.lines = read_journal("/tmp/record");
    return record;
}

std::vector<json> _masked(const std::vector<json> &lines, std::string *report) {
    Mask mask(lines);
    std::vector<json> masked;
    for (const json &line : lines) {
        const std::string text = mask.line(line);
        for (const char *secret : {"alice@example.com", "Secret-1", kDeviceId, "7f3a90c2d6e84b15"}) {
            EXPECT_THAT(text, testing::Not(testing::HasSubstr(secret)));
        }
        masked.push_back(json::parse(text));
    }
    *report = mask.report();
    return masked;
}

// What both sides said, in order.
std::vector<std::string> _said(const std::vector<json> &lines) {
    std::vector<std::string> said;
    for (const json &line : lines) {
        if (line.at("kind") == "message") {
            said.push_back(told(line.at("type"), line.at("body")));
        }
    }
    return said;
}

TEST(Record, IsMaskedReplayedAndMadeAScenario) {
    const Record record = _taken_by_the_tap();
    EXPECT_THAT(record.printed, testing::ElementsAre("0\n", "0\n", "0\n", "0\n", "-20571\n", "1\n"));
    std::string report;
    const std::vector<json> masked = _masked(record.lines, &report);
    EXPECT_THAT(report, testing::HasSubstr("1 of account"));
    EXPECT_THAT(report, testing::HasSubstr("\"alias\" (1)")) << "what it cannot judge it names";
    for (const char *kind : {"start", "run"}) {
        const json line{{"kind", kind}, {"argv", {"cloud_msg", "bind", "YS5u", "YSBjaXBoZXI="}}};
        EXPECT_THAT(Mask(record.lines).line(line), testing::Not(testing::HasSubstr("YS")));
    }

    struct Row {
        const char *name;
        const char *alias;
        int count;
        const char *where;
    };
    for (const Row &row :
         {Row{"same", kAlias, 0, ""}, Row{"changed", "YSBwaG9uZXM=", 1, "request.params.alias"}}) {
        SCOPED_TRACE(row.name);
        Device device;
        device.broker().stop();
        Replay replay(device.journal(), conversations(masked), {true, kBrokerPath});
        EXPECT_EQ(_live(device, row.alias), record.printed);
        const Replay::Verdict verdict = replay.finish();
        EXPECT_EQ(verdict.count, row.count) << device.journal().text();
        EXPECT_EQ(verdict.first ? verdict.first->where : "", row.where);
    }
    {
        Device device;
        device.broker().stop();
        Replay replay(device.journal(), conversations(masked), {true, kBrokerPath});
        EXPECT_EQ(device.cloud_msg({"online"}).out, "0\n");
        const Replay::Verdict verdict = replay.finish();
        ASSERT_TRUE(verdict.first);
        EXPECT_EQ(verdict.first->where, "a message less");
        EXPECT_EQ(verdict.connection, 2);
    }

    const Documents documents = documents_of(conversations(record.lines));
    EXPECT_EQ(documents.scenario.at("rules").size(), 2U)
        << dump(documents.scenario) << "the model knows the rest";
    Device device(documents.scenario, documents.cloud);
    EXPECT_EQ(_live(device), record.printed);
    EXPECT_EQ(_said(device.journal().all()), _said(record.lines));
}

TEST(Record, HasWhatABrokerOfOnesOwnSays) {
    Device device(json{{"listening", false}});
    Journal own;
    {
        const ForeignBroker tap(device.journal());
        Cloud cloud;
        const Broker broker(own, cloud);
        ASSERT_TRUE(test::await([] { return std::filesystem::exists("/tmp/cloud-brd.aside"); }));
        EXPECT_EQ(device.cloud_msg({"online"}).out, "0\n");
    }
    EXPECT_THAT(_said(own.all()), testing::Not(testing::IsEmpty()));
    EXPECT_EQ(_said(device.journal().all()), _said(own.all()));
}

}  // namespace
}  // namespace emulator
