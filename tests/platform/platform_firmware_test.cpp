// The store's firmware commands on "/tmp/httpUploadFile.bin", and the tool that makes image files.
// Runs inside a private device, where that path is nobody else's.

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <initializer_list>

#include "platform_support.h"
#include "wrapper.h"

using namespace platform_test;

namespace {

constexpr unsigned kCheck = 0xe0002;
constexpr unsigned kInstall = 0xe0001;
constexpr char kImagePath[] = "/tmp/httpUploadFile.bin";
constexpr char kVersion[] = "1.0.7 Build 20240102 Rel.1";

// A whole image by hand; its digest is that of openssl.
std::string good_image() {
    constexpr unsigned char kDigest[] = {0x96, 0x6f, 0xd3, 0x71, 0xf4, 0x37, 0x58, 0x26, 0x43, 0xd4, 0xa8,
                                         0xac, 0x8c, 0x2f, 0x37, 0xb7, 0x9f, 0x26, 0xea, 0xd8, 0xea, 0x07,
                                         0x82, 0xf9, 0x86, 0xb7, 0x4d, 0x66, 0x1a, 0x8a, 0x66, 0xfb};
    std::string image("EXTIMAGE\0\0\0\1\0\0\0\5", 16);
    image += kVersion;
    image.resize(144);
    image.append(reinterpret_cast<const char *>(kDigest), sizeof(kDigest));
    return image + "12345";
}

// @return the first word of the reply; -1 when there was none.
int32_t check() {
    std::array<unsigned char, 132> reply;
    reply.fill(0xaa);
    if (wrpOpDo(kCheck, nullptr, 0, reply.data(), reply.size(), WRP_READ) != 0) {
        return -1;
    }
    int32_t error = -1;
    memcpy(&error, reply.data(), sizeof(error));
    EXPECT_TRUE(std::all_of(reply.begin() + 4, reply.end(), [](unsigned char byte) { return byte == 0; }));
    return error;
}

int32_t install() {
    uint32_t zero = 0;
    void *reply = nullptr;
    unsigned length = 0;
    if (wrpDoCmdWithoutID(kInstall, &zero, sizeof(zero), &reply, &length) != 0) {
        return -1;
    }
    EXPECT_EQ(length, 4U);
    int32_t error = -1;
    memcpy(&error, reply, sizeof(error));
    return error;
}

class Firmware : public testing::Test {
protected:
    void TearDown() override {
        std::filesystem::remove_all(kImagePath);
        static_cast<void>(wrpWithdrawTransID());
    }

    [[nodiscard]] std::filesystem::path flashed() const { return state.folder() / "firmware.bin"; }
    [[nodiscard]] std::filesystem::path restart() const { return state.folder() / "restart"; }

    StateFolder state;
};

struct Fault {
    const char *name;
    int32_t error;
    std::function<void(std::string &image)> make;
};
void PrintTo(const Fault &row, std::ostream *out) {
    *out << row.name;
}

class FirmwareFault : public Firmware, public testing::WithParamInterface<Fault> {};

TEST_P(FirmwareFault, IsReportedAndNeverInstalled) {
    std::string image = good_image();
    GetParam().make(image);
    write_file(kImagePath, image);
    write_file(flashed(), "the old one");
    EXPECT_EQ(check(), GetParam().error);
    ASSERT_EQ(wrpGetTransID(0), 0);
    EXPECT_EQ(install(), GetParam().error);
    EXPECT_EQ(text_of(flashed()), "the old one");
    EXPECT_FALSE(std::filesystem::exists(flashed().string() + ".new"));
    EXPECT_FALSE(std::filesystem::exists(restart()));
    EXPECT_EQ(wrpWithdrawTransID(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, FirmwareFault,
    testing::Values(
        Fault{"Empty", 2, [](auto &image) { image.clear(); }},
        Fault{"CutInHeader", 2, [](auto &image) { image.resize(175); }},
        Fault{"Magic", 2, [](auto &image) { image[7] = 'e'; }},
        Fault{"Format", 3, [](auto &image) { image[11] = 2; }},
        Fault{"CutInPayload", 4, [](auto &image) { image.pop_back(); }},
        Fault{"BytesAfter", 4, [](auto &image) { image += '\0'; }},
        Fault{"LengthHuge", 4, [](auto &image) { image.replace(12, 4, "\xff\xff\xff\xff"); }},
        Fault{"NoPayload", 4, [](auto &image) { image.resize(176), image[15] = 0; }},
        Fault{"NoVersion", 5, [](auto &image) { image.replace(16, 128, std::string(128, '\0')); }},
        Fault{"VersionUnterminated", 5, [](auto &image) { image.replace(16, 128, std::string(128, 'v')); }},
        Fault{"VersionWithNewline", 5, [](auto &image) { image[20] = '\n'; }},
        Fault{"VersionThenMore", 5, [](auto &image) { image[143] = 'x'; }},
        Fault{"OtherVersion", 6, [](auto &image) { image[20] = '8'; }},
        Fault{"Payload", 6, [](auto &image) { image.back() ^= 1; }},
        Fault{"Digest", 6, [](auto &image) { image[175] ^= 1; }}),
    [](const auto &row) { return std::string(row.param.name); });

TEST_F(Firmware, IsCheckedThenInstalledThenAsksForTheRestart) {
    write_file(kImagePath, good_image());
    EXPECT_EQ(check(), 0);
    EXPECT_FALSE(std::filesystem::exists(state.folder()));  // checking leaves no trace
    ASSERT_EQ(wrpGetTransID(0), 0);
    EXPECT_EQ(install(), 0);
    EXPECT_EQ(text_of(flashed()), good_image());
    EXPECT_EQ(text_of(restart()), std::string(kVersion) + "\n");
    EXPECT_FALSE(std::filesystem::exists(flashed().string() + ".new"));
}

TEST_F(Firmware, GoesToTheFlashFolderThatIsNamed) {
    const std::filesystem::path flash = state.root() / "flash";
    setenv("CLOUD_FLASH_DIR", flash.c_str(), 1);
    write_file(kImagePath, good_image());
    ASSERT_EQ(wrpGetTransID(0), 0);
    EXPECT_EQ(install(), 0);
    EXPECT_EQ(text_of(flash / "firmware.bin"), good_image());

    setenv("CLOUD_FLASH_DIR", kImagePath, 1);  // no folder
    EXPECT_EQ(install(), 7);
}

TEST_F(Firmware, RefusesBadCalls) {
    write_file(kImagePath, good_image());
    std::array<unsigned char, 133> out{};
    unsigned char *const room = out.data();
    uint32_t word = 0;
    EXPECT_NE(wrpOpDo(0xe0003, nullptr, 0, room, 132, WRP_READ), 0);
    EXPECT_NE(wrpOpDo(kInstall, nullptr, 0, room, 132, WRP_READ), 0);
    EXPECT_NE(wrpOpDo(kCheck, nullptr, 0, nullptr, 132, WRP_READ), 0);
    EXPECT_NE(wrpOpDo(kCheck, nullptr, 0, room, 131, WRP_READ), 0);
    EXPECT_NE(wrpOpDo(kCheck, nullptr, 0, room, 133, WRP_READ), 0);
    EXPECT_NE(wrpOpDo(kCheck, &word, 4, room, 132, WRP_READ), 0);
    EXPECT_NE(wrpOpDo(kCheck, nullptr, 0, room, 132, WRP_WRITE), 0);

    void *reply = nullptr;
    unsigned length = 0;
    ASSERT_EQ(wrpGetTransID(0), 0);
    EXPECT_NE(wrpDoCmdWithoutID(kCheck, &word, 4, &reply, &length), 0);
    EXPECT_NE(wrpDoCmdWithoutID(kInstall, nullptr, 4, &reply, &length), 0);
    EXPECT_NE(wrpDoCmdWithoutID(kInstall, &word, 3, &reply, &length), 0);
    EXPECT_NE(wrpDoCmdWithoutID(kInstall, &word, 4, nullptr, &length), 0);
    EXPECT_NE(wrpDoCmdWithoutID(kInstall, &word, 4, &reply, nullptr), 0);
    word = 1;
    EXPECT_NE(wrpDoCmdWithoutID(kInstall, &word, 4, &reply, &length), 0);
    EXPECT_EQ(reply, nullptr);
    EXPECT_FALSE(std::filesystem::exists(state.folder()));
}

// The tool -------------------------------------------------------------------------------------------

TEST_F(Firmware, ToolMakesTheImageFromAFile) {
    write_file(state.root() / "payload", "12345");
    const Ran ran = shell("cloud_image make --version '" + std::string(kVersion) + "' --payload " +
                          (state.root() / "payload").string() + " -o " + kImagePath +
                          " && cloud_image info " + kImagePath);
    EXPECT_EQ(ran.out, std::string("version: ") + kVersion + "\npayload: 5 bytes\nchecksum: good\n");
    EXPECT_EQ(text_of(kImagePath), good_image());
}

TEST_F(Firmware, ToolMakesAPatternWithoutPeriod) {
    const Ran ran = shell(std::string("cloud_image make --size 100001 -o ") + kImagePath + " --version 2.0");
    ASSERT_EQ(ran.status, 0) << ran.out;
    const std::string image = text_of(kImagePath);
    ASSERT_EQ(image.size(), 176U + 100001U);
    EXPECT_EQ(check(), 0);
    for (size_t offset = 0; offset < 100000; offset += 4096 - 5) {  // no stretch of it comes again
        EXPECT_EQ(image.find(image.substr(176 + offset, 8), 177 + offset), std::string::npos) << offset;
    }
}

TEST_F(Firmware, ToolRefusesWhatIsNoImage) {
    const std::string image = (state.root() / "image").string();
    const std::string version127(127, 'v');
    EXPECT_EQ(shell("cloud_image make --version " + version127 + " --size 1 -o " + image).status, 0);
    struct Row {
        const char *arguments;
        int status;
    };
    for (const Row &row :
         std::initializer_list<Row>{{"", 2},
                                    {"info", 2},
                                    {"make --version 1 --size 5", 2},
                                    {"make --version 1 --size 5 --payload x -o no", 2},
                                    {"make --version 1 --size 5x -o no", 2},
                                    {"make --version 1 --size -5 -o no", 2},
                                    {"make --version 1 --version 2 --size 5 -o no", 2},
                                    {"make --version 1 --size 0 -o no", 1},
                                    {"make --version 1 --size 4294967296 -o no", 1},
                                    {"make --version '' --size 5 -o no", 1},
                                    {"make --version \"$(printf 'a\\nb')\" --size 5 -o no", 1},
                                    {"make --version 1 --payload absent -o no", 1},
                                    {"info absent", 1}}) {
        const Ran ran = shell("cd " + state.root().string() + " && cloud_image " + row.arguments);
        EXPECT_EQ(ran.status, row.status) << row.arguments;
        EXPECT_NE(ran.out, "") << row.arguments;
        EXPECT_FALSE(std::filesystem::exists(state.root() / "no")) << row.arguments;
    }
}

TEST_F(Firmware, ToolSparesWhatWasThere) {
    const std::string inFolder = "cd " + state.root().string() + " && ";
    write_file(state.root() / "keep", "kept");
    std::filesystem::create_symlink("keep", state.root() / "link");
    std::filesystem::create_directory(state.root() / "folder");
    ASSERT_EQ(mkfifo((state.root() / "pipe").c_str(), 0600), 0);
    for (const auto &[arguments, told] :
         {std::pair{"--version 1 --payload keep -o keep", "keep: is the payload"},
          {"--version '' --size 5 -o keep", "--version: "},
          {"--version 1 --size 0 -o keep", "0: a payload"},
          {"--version 1 --payload absent -o keep", "absent: "},
          {"--version 1 --size 5 -o link", "link: is there"},
          {"--version 1 --size 5 -o folder", "folder: is there"},
          {"--version 1 --size 5 -o pipe", "pipe: is there"},
          {"--version 1 --size 5 -o absent/x", "absent/x: No such file"}}) {
        const Ran ran = shell(inFolder + "cloud_image make " + arguments);
        EXPECT_EQ(ran.status, 1) << arguments;
        EXPECT_THAT(ran.out, testing::StartsWith(std::string("cloud_image: ") + told));
    }
    // A part of it can be written, as on a disk that becomes full.
    EXPECT_NE(shell(inFolder + "ulimit -f 8; trap '' XFSZ; cloud_image make --version 1 --size 9999 -o keep")
                  .status,
              0);
    EXPECT_EQ(shell(inFolder + "cat keep; ls").out, "keptfolder\nkeep\nlink\npipe\n");
    EXPECT_EQ(shell(inFolder +
                    "umask 027; cloud_image make --version 1 --size 5 -o keep; ls; cloud_image info keep")
                  .out,
              "folder\nkeep\nlink\npipe\nversion: 1\npayload: 5 bytes\nchecksum: good\n");
    EXPECT_EQ(mode_of(state.root() / "keep"), 0640U);
}

}  // namespace
