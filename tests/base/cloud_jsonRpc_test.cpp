#include "cloud_jsonRpc.h"

#include "cloud_owner.h"
#include "program.h"

namespace {

using namespace program;

TEST(CloudJsonRpc, ReadsMembersAsTexts) {
    const JsonTree tree(cloud_jsonParseStr(
        R"({"n":0,"neg":-20103,"text":"a b","frac":2.5,"small":-0.5,"big":1000000000000000,"huge":1e300,)"
        R"("a":[1,"x"],"o":{"k":1},"t":true,"z":null,"inf":1e999,"twice":"first","twice":"second","Case":"1"})"));
    ASSERT_NE(tree, nullptr);
    struct Row {
        const char *name, *text;
    };
    for (const Row &row : {Row{"n", "0"}, Row{"neg", "-20103"}, Row{"text", "a b"}, Row{"frac", "2.5"},
                           Row{"small", nullptr}, Row{"big", "1000000000000000"}, Row{"huge", "1e+300"},
                           Row{"a", "[1,\"x\"]"}, Row{"o", "{\"k\":1}"}, Row{"t", nullptr}, Row{"z", nullptr},
                           Row{"inf", nullptr}, Row{"twice", "second"}, Row{"case", nullptr}}) {
        EXPECT_STREQ(cloud_getValueFromJsonObj(tree.get(), row.name), row.text) << row.name;
    }
    // The same text again: it belongs to the item.
    EXPECT_EQ(cloud_getValueFromJsonObj(tree.get(), "o"), cloud_getValueFromJsonObj(tree.get(), "o"));
}

TEST(CloudJsonRpc, ReadsElementsOfArrays) {
    Device device;
    const JsonTree tree(cloud_jsonParseStr(R"([{"v":"0"},5,{"v":"2"}])"));
    EXPECT_STREQ(cloud_getValueFromArrayJsonObj(tree.get(), 0, "v"), "0");
    EXPECT_STREQ(cloud_getValueFromArrayJsonObj(tree.get(), 2, "v"), "2");
    EXPECT_EQ(cloud_getValueFromArrayJsonObj(tree.get(), 1, "v"), nullptr);
    for (const int index : {3, -1, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(cloud_getValueFromArrayJsonObj(tree.get(), index, "v"), nullptr);
        expect_console(device, "index is invalid.");
        device.journal().clear();
    }
    const JsonTree object(cJSON_CreateObject());
    EXPECT_EQ(cloud_getValueFromArrayJsonObj(object.get(), 0, "v"), nullptr);
    expect_console(device, "pJsonArrayObj type is not array!");
    EXPECT_EQ(cloud_getValueFromArrayJsonObj(nullptr, 0, "v"), nullptr);
    expect_console(device, "pJsonArrayObj or name is NULL!");
    EXPECT_EQ(cloud_getValueFromJsonObj(object.get(), nullptr), nullptr);
    expect_console(device, "pJsonObj or name is NULL!");
}

TEST(CloudJsonRpc, ReportsWhereATextStopsBeingJson) {
    Device device;
    EXPECT_EQ(cloud_jsonParseStr("{\"a\":}"), nullptr);
    expect_console(device, "Error before: [}]");
    EXPECT_EQ(cloud_jsonParseStr(nullptr), nullptr);
    expect_console(device, "pBuf is NULL!");
}

TEST(CloudJsonRpc, KnowsTypesByTheirCodes) {
    const char *texts[] = {"false", "true", "null", "1", "\"s\"", "[]", "{}"};
    for (int type = 0; type < 7; ++type) {
        const JsonTree tree(cJSON_Parse(texts[type]));
        EXPECT_EQ(cJSON_GetJsonObjType(tree.get()), type);
    }
    EXPECT_EQ(cJSON_GetJsonObjType(nullptr), kJsonInvalid);
}

}  // namespace
