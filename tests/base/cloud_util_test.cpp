#include "cloud_util.h"

#include <signal.h>
#include <sys/time.h>

#include <array>
#include <chrono>
#include <cstring>

#include "program.h"

namespace {

using namespace program;

TEST(CloudUtilLog, WritesPrefixAndMessage) {
    Device device;
    const std::string line = std::to_string(__LINE__ + 1);
    CLOUD_LOG("Token %s not \"found\" $(id) \\n!\n", "x");
    expect_console(device, "Token x");
    cloud_util_printf("%s", "");  // an empty message is an empty line
    cloud_util_printf("end");
    expect_console(device, "end");
    const std::string text = console(device);
    const std::string prefix = std::string("[") + __DATE__ + "-";
    EXPECT_EQ(text.substr(0, prefix.size()), prefix);
    EXPECT_NE(text.find("][tests/base/cloud_util_test.cpp:TestBody:" + line +
                        "] \nToken x not \"found\" $(id) \\n!\nend\n"),  // the journal keeps no empty lines
              std::string::npos)
        << text;
}

TEST(CloudUtilLog, CutsALongMessage) {
    Device device;
    EXPECT_EQ(cloud_util_printf("%s", std::string(10000, 'x').c_str()), 0);
    cloud_util_printf("end");
    expect_console(device, "end");
    EXPECT_EQ(console(device), std::string(4904, 'x') + "\nend\n");
}

TEST(CloudUtilCopy, IsBoundedAndTerminated) {
    std::array<char, 6> text{'#', '#', '#', '#', '#', '#'};
    cstr_strncpy(text.data(), "abcdef", 4);
    EXPECT_EQ(std::string_view(text.data(), 6), std::string_view("abc\0##", 6));
    cstr_strncpy(text.data(), "a", 5);
    EXPECT_EQ(std::string_view(text.data(), 6), std::string_view("a\0\0\0\0#", 6));
    cstr_strncpy(text.data(), "abc", 1);
    EXPECT_EQ(text[0], '\0');
    EXPECT_DEATH(
        cstr_strncpy(nullptr, "a", 1),
        R"(cstr_strncpy: Assertion `\(dest != \(\(void \*\)0\)\) && \(src != \(\(void \*\)0\)\)' failed)");
    EXPECT_DEATH(cstr_strncpy(text.data(), "a", 0),
                 "src/cloud_util.cpp:[0-9]+: cstr_strncpy: Assertion `n > 0' failed");
}

TEST(CloudUtilFilename, IsWhatFollowsTheLastSlash) {
    const Device device;  // its console takes the log
    struct Row {
        const char *url, *name;  // name null: refused
    };
    for (const Row &row : {Row{"http://h/a/fw.bin", "fw.bin"}, Row{"fw.bin", "fw.bin"},
                           Row{"/fw.bin", nullptr}, Row{"http://h/dir/", nullptr}, Row{"", nullptr},
                           Row{"/", nullptr}, Row{"//x", "x"}, Row{nullptr, nullptr}}) {
        EXPECT_STREQ(cloud_getFilename(row.url), row.name) << (row.url == nullptr ? "null" : row.url);
    }
}

TEST(CloudUtilToken, IsFoundAtALineStartInAnyCase) {
    const Device device;  // its console takes the log
    int number = 0;
    EXPECT_EQ(cloud_getSpecificToken("xkey=1\nKEY=2", "key", "%d", &number), 1);
    EXPECT_EQ(number, 2);
    char text[32] = "before";
    EXPECT_EQ(cloud_getSpecificToken("name=two words\nkey=1\n", "name", "%s", text), 1);
    EXPECT_STREQ(text, "two words");
    EXPECT_EQ(cloud_getSpecificToken("flag=7", "flag", "%c", text), 1);
    EXPECT_EQ(text[0], 7);
    EXPECT_EQ(cloud_getSpecificToken("flag=\n", "flag", "%c", text), 1);
    EXPECT_EQ(static_cast<unsigned char>(text[0]), 0xD0);  // the digit of a zero byte
    EXPECT_EQ(cloud_getSpecificToken("name=\nkey=1", "name", "%d", text), 1);
    EXPECT_EQ(text[0], '\0');
    number = 5;
    EXPECT_EQ(cloud_getSpecificToken("key=none", "key", "%d", &number), 1);  // found, though no number
    EXPECT_EQ(number, 5);
    EXPECT_EQ(cloud_getSpecificToken("keykey=1", "key", "%d", &number), 0);
    EXPECT_EQ(cloud_getSpecificToken("a=1", std::string(5000, 'a').c_str(), "%d", &number), 0);
    EXPECT_EQ(cloud_getSpecificToken(nullptr, "key", "%d", &number), 0);
    EXPECT_EQ(cloud_getSpecificToken("key=1", "key", "%d", nullptr), 0);
}

TEST(CloudUtilBreaks, BecomeHtmlAsFarAsTheyFit) {
    const Device device;  // its console takes the log
    struct Row {
        const char *raw;
        size_t size;
        const char *html;
    };
    for (const Row &row : {Row{"a\r\nb\nc", 64, "a<br/>b<br/>c"}, Row{"\n\r\r\n\n", 64, "<br/><br/><br/>"},
                           Row{R"(a\r\nb\nc\rd)", 64, "a<br/>b<br/>c<br/>d"},
                           Row{"ab\ncd\nef", 12, "ab<br/>"}, Row{"ab\ncd", 10, "ab<br/>cd"},
                           Row{"ab\ncd", 8, "ab<br/>"}, Row{"ab\ncd", 7, ""}, Row{"abcdef", 4, "abc"}}) {
        std::string out(row.size + 1, '#');
        cloud_replaceNewlineWithHtmlBR(row.raw, out.data(), row.size);
        EXPECT_STREQ(out.c_str(), row.html) << row.raw << " in " << row.size;
        EXPECT_EQ(out[row.size], '#');
    }
}

TEST(CloudUtilSleep, LastsItsTimeThroughSignals) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval timer{{0, 100000}, {0, 100000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(cloud_sleep(1), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(999));
    setitimer(ITIMER_REAL, nullptr, nullptr);
}

TEST(CloudUtilMisc, DigestAndSemaphore) {
    const unsigned char digest[16] = {0x00, 0x01, 0x0a, 0xff, 0x80};
    char hex[33];
    EXPECT_EQ(cloud_digestToHexStr(digest, hex), 0);
    EXPECT_STREQ(hex, "00010AFF800000000000000000000000");
    EXPECT_EQ(cloud_digestToHexStr(nullptr, hex), -1);
    EXPECT_EQ(cloud_digestToHexStr(digest, nullptr), -1);
    sem_t semaphore;
    sem_init(&semaphore, 0, 1);
    EXPECT_EQ(cloud_semDestroy(semaphore), 1);
    EXPECT_EQ(sem_trywait(&semaphore), 0);  // the caller's own lives on
    sem_destroy(&semaphore);
}

}  // namespace
