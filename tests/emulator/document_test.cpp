// Documents that people write: what no neighbour does is refused.
#include <gmock/gmock.h>

#include "device.h"
#include "emulator_support.h"
#include "image_scenario.h"

namespace emulator {
namespace {

TEST(Scenario, RefusesWhatNoBrokerDoes) {
    for (const auto &[rules, named] : {
             std::pair{R"([{"on":"accept","do":{"silense":true}}])", "\"silense\""},
             {R"([{"on":"accept","n":1,"do":{}}])", "\"n\""},
             {R"([{"on":"accept"}])", "\"do\""},
             {R"([5])", "rule 1 must be an object"},
             {R"([{"on":"accept","do":{}},{"on":"acept","do":{}}])",
              "rule 2 is no message of a client: \"acept\""},
             {R"([{"on":67,"do":{}}])", "client: 67"},
             {R"([{"on":66,"nth":"x","do":{}}])", "\"nth\""},
             {R"([{"on":66,"nth":0,"do":{}}])", "\"nth\""},
             {R"([{"on":66,"do":{"full":"x"}}])", "\"full\""},
             {R"([{"on":66,"do":{"delay_ms":-1}}])", "\"delay_ms\""},
             {R"([{"on":66,"do":{"length":4294967296}}])", "\"length\""},
             {R"([{"on":66,"do":{"errorcode":2147483648}}])", "\"errorcode\""},
             {R"([{"on":66,"do":{"pending":1.5}}])", "\"pending\""},
             {R"([{"on":66,"do":{"magic":"B2A"}}])", "\"magic\""},
             {R"([{"on":66,"do":{"garbage_hex":"0g"}}])", "\"garbage_hex\""},
             {R"([{"on":66,"do":{"body":{}}}])", "\"body\""},
             {R"([{"on":66,"do":{"then":{}}}])", "\"then\""},
             {R"([{"on":66,"do":{"then":["ask"]}}])", "\"ask\""},
             {R"([{"on":66,"do":{"then":[{"foo":1}]}}])", "\"foo\""},
             {R"([{"on":66,"do":{"then":[{"push":"a","body":"b"}]}}])", "one thing"},
             {R"([{"on":66,"do":{"then":[{"link":1,"logic":1}]}}])", "one thing"},
         }) {
        EXPECT_THAT(refusal([&, rules = rules] {
                        Neighbours(json{{"rules", json::parse(rules)}});
                    }),
                    testing::HasSubstr(named))
            << rules;
    }
    for (const char *scenario : {R"({"lnk":1})", R"({"listening":1})", R"({"kmpd":"asleep"})", "[]"}) {
        EXPECT_NE(refusal([&] { Device(json::parse(scenario)); }), "taken") << scenario;
    }
}

TEST(Scenario, RefusesWhatNoImageServerDoes) {
    Journal journal;
    ImageServer server(journal);
    for (const char *rules :
         {R"([{"pth":"/"}])", R"([{"path":5,"do":{}}])", R"([{"do":{"stal_after":1}}])",
          R"([{"do":{"status":"x"}}])", R"([{"do":{"length":"x"}}])", R"([{"do":{"trickle":{"bytes":1}}}])",
          R"([{"do":{"trickle":{"bytes":0,"ms":1}}}])"}) {
        EXPECT_NE(refusal([&] { server.set_rules(json::parse(rules)); }), "taken") << rules;
    }
    EXPECT_NE(refusal([&] { (void)make_image_server(journal, json{{"tsl", true}}); }), "taken");
}

TEST(CloudModelChange, RefusesWhatNoModelHas) {
    for (const char *model :
         {R"({"acounts":[]})", R"({"accounts":5})", R"({"accounts":[{"nme":"a","password":"b"}]})",
          R"({"accounts":[{"name":"a","password":"b","role":"c"}]})", R"({"device":{"ownr":"a"}})",
          R"({"device":{"users":[1]}})", R"({"token":{"expiresIn":"1"}})",
          R"({"firmware":[{"fwVr":"1.0.1"}]})", R"({"firmware":[{"fwVer":1}]})", "5"}) {
        EXPECT_NE(refusal([&] { Cloud(json::parse(model)); }), "taken") << model;
    }
}

}  // namespace
}  // namespace emulator
