// What a page covers of texts that hold secrets.
#include "secrets.h"

#include <gmock/gmock.h>

#include "wire.h"

namespace emulator {
namespace {

// JSON in a text in JSON, so many times.
std::string nested(std::string text, int depth) {
    for (; depth > 0; --depth) {
        text = dump({{"request", text}});
    }
    return text;
}

TEST(Secrets, CoversThemWhereverTheyStand) {
    const std::string known = "Pa\"ss\\1";
    const Secrets secrets(
        {{"accounts", {{{"name", "a"}, {"password", known}}, {{"name", "b"}, {"password", "abc"}}}},
         {"token", {{"deviceToken", "7f3a90c2"}}}});
    const std::string cover = "\u2022\u2022\u2022\u2022";
    for (int depth = 0; depth < 4; ++depth) {
        const auto shown = [&](const json &value) { return secrets.cover(nested(dump(value), depth)); };
        const auto wanted = [&](const json &value) { return nested(dump(value), depth); };
        EXPECT_EQ(shown({{"text", "so " + known + "!"}}), wanted({{"text", "so " + cover + "!"}})) << depth;
        EXPECT_EQ(shown({{"password", "un\"kno\\wn\\"}, {"a", 1}}), wanted({{"password", cover}, {"a", 1}}))
            << depth;
        EXPECT_EQ(shown({{"cloudPassword", ""}, {"a", "b"}}), wanted({{"cloudPassword", cover}, {"a", "b"}}))
            << depth;
    }
    for (const auto &[text, covered] : {std::pair{"token 7f3a90c2.", "token " + cover + "."},
                                        {R"({"refreshToken":"r1"})", R"({"refreshToken":")" + cover + "\"}"},
                                        {"abc", "abc"},  // too short to be one
                                        {"the \"password\" is a word", "the \"password\" is a word"},
                                        {"{\"password\":12}", "{\"password\":12}"},
                                        {"{\"deviceToken\": \"cut off", "{\"deviceToken\": \"" + cover}}) {
        EXPECT_EQ(secrets.cover(text), covered);
    }
    EXPECT_EQ(secrets.cover(to_hex("x" + known)), to_hex("x") + cover);
}

}  // namespace
}  // namespace emulator
