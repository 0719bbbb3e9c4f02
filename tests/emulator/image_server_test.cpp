// The image server, asked by curl.
#include "image_server.h"

#include <gmock/gmock.h>

#include "image_scenario.h"
#include "process.h"

namespace emulator {
namespace {

TEST(ImageServerTest, AnswersAsARuleTellsWhateverWasAsked) {
    Journal journal;
    ImageServer server(journal);
    server.put("/fw.bin", "content");
    server.set_rules(json::parse(R"([{"nth":1,"do":{"status":206}}])"));
    const auto fetched = [&](const char *range) {
        return Process({"curl", "-s", "-H", range, server.url("/fw.bin")}).wait().out;
    };
    EXPECT_EQ(fetched("A: b"), "content") << "206 without a range";
    EXPECT_EQ(fetched("Range: bytes=3-1"), "content") << "a range that ends before it begins";
}

TEST(ImageServerTest, IsTrustedUnlessAScenarioWantsOtherwise) {
    constexpr int kUntrusted = 60;  // curl's codes
    constexpr int kFailed = 22;
    for (const auto &[image, status] : {std::pair{R"({"tls":true,"trusted":false})", kUntrusted},
                                        {R"({"tls":true,"rules":[{"do":{"status":404}}]})", kFailed}}) {
        Journal journal;
        const auto server = make_image_server(journal, json::parse(image));
        server->put("/fw.bin", "content");
        EXPECT_EQ(Process({"curl", "-sf", server->url("/fw.bin")}).wait().status, status) << image;
    }
}

}  // namespace
}  // namespace emulator
