#include "base64.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

namespace {

struct Row {
    const char *text;
    int32_t room;
    int32_t result;
    std::string written;  // also where it fails
};

TEST(Base64, Decodes) {
    for (const Row &row : {Row{"AQABAA==", 16, 4, std::string("\1\0\1\0", 4)},
                           Row{"  QUJD\n", 16, 3, "ABC"},
                           Row{"\t\v\f\rQUJD", 16, 3, "ABC"},
                           Row{"QU JD", 16, -1, ""},
                           Row{"QU JDxxx", 16, -1, "A"},
                           Row{"QUI", 16, -1, ""},
                           Row{"QUI=", 16, 2, "AB"},
                           Row{"QQ==", 16, 1, "A"},
                           Row{"QQ=A", 16, -1, "A"},
                           Row{"QQ==QUJD", 16, 1, "A"},
                           Row{"", 16, 0, ""},
                           Row{"   ", 16, 0, ""},
                           Row{"====", 16, -1, ""},
                           Row{"Q===", 16, -1, ""},
                           Row{"QUJDQUJ\xC3", 16, -1, "ABCAB"},
                           Row{"+/+/", 16, 3, "\xFB\xFF\xBF"},
                           Row{"-_-_", 16, -1, ""},
                           Row{"QUJDREVG", 6, 6, "ABCDEF"},
                           Row{"QUJDREVG", 5, -1, "ABCDE"},
                           Row{"QUJDRA==", 4, 4, "ABCD"},
                           Row{"QUJDRA==", 3, -1, "ABC"}}) {
        SCOPED_TRACE(row.text);
        std::string out(24, '#');
        EXPECT_EQ(b64_decode(out.data(), row.room, row.text, -1), row.result);
        EXPECT_EQ(out, row.written + std::string(24 - row.written.size(), '#'));
    }
    char out[4];
    EXPECT_EQ(b64_decode(out, 4, nullptr, -1), 0);
    EXPECT_EQ(b64_decode(out, 4, "QUJDxxx", 4), 3);  // a given length counts, not the terminator
}

TEST(Base64, TellsTheDecodedSizeByTheLength) {
    EXPECT_EQ(b64_decodedSize("QUJD"), 3);
    EXPECT_EQ(b64_decodedSize(" QUJDRA== "), 4);
    EXPECT_EQ(b64_decodedSize("QUI="), 2);
    EXPECT_EQ(b64_decodedSize("QQ==QUJD"), 1);
    EXPECT_EQ(b64_decodedSize("QUJDQU"), 3);
    EXPECT_EQ(b64_decodedSize("****"), 3);  // it does not check the text
    EXPECT_EQ(b64_decodedSize(""), 0);
    EXPECT_EQ(b64_decodedSize(nullptr), 0);
}

TEST(Base64, Encodes) {
    const std::array rows{std::pair{"", ""},
                          std::pair{"f", "Zg=="},
                          std::pair{"fo", "Zm8="},
                          std::pair{"foo", "Zm9v"},
                          std::pair{"foob", "Zm9vYg=="},
                          std::pair{"fooba", "Zm9vYmE="},
                          std::pair{"\xFB\xFF", "+/8="},
                          std::pair{"foobar", "Zm9vYmFy"}};
    for (const auto &[bytes, text] : rows) {
        char out[16];
        const auto length = static_cast<int32_t>(strlen(bytes));
        const auto size = static_cast<int32_t>(strlen(text));
        EXPECT_EQ(b64_encode(out, size + 1, bytes, length), size);
        EXPECT_STREQ(out, text);
        if (size > 0) {
            EXPECT_EQ(b64_encode(out, size, bytes, length), -1);
        }
    }
    char out[4];
    EXPECT_EQ(b64_encode(out, 4, nullptr, 3), 0);
}

TEST(Base64, StopsOnMisuse) {
    char out[4];
    EXPECT_DEATH(static_cast<void>(b64_decode(nullptr, 4, "QUJD", -1)),
                 R"(Assertion `dst != \(\(void \*\)0\) && dstlen > 0' failed)");
    EXPECT_DEATH(static_cast<void>(b64_decode(out, 0, "QUJD", -1)),
                 "src/base64.cpp:[0-9]+: b64_decode: Assertion");
    EXPECT_DEATH(static_cast<void>(b64_encode(out, 4, "a", -1)),
                 R"(Assertion `dst != \(\(void \*\)0\) && dstlen > 0 && srclen >= 0' failed)");
}

}  // namespace
