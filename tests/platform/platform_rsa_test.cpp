// The reference RSA library and its tool, against themselves and against openssl.

#include <gmock/gmock.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>

#include "platform_support.h"
#include "rsa.h"

using namespace platform_test;

namespace {

struct Keys {
    char key1[512] = "";
    char key2[512] = "";
    char key3[512] = "";
};

std::optional<std::string> owned(char *text) {
    const std::unique_ptr<char, decltype(&free)> owner(text, free);
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

std::optional<std::string> encrypt(Keys &keys, const std::string &text) {
    return owned(librsa_encrypt(text.c_str(), keys.key1, keys.key2));
}

std::optional<std::string> decrypt(Keys &keys, const std::string &cipher) {
    return owned(librsa_decrypt(cipher.c_str(), keys.key1, keys.key2, keys.key3));
}

class Rsa : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(librsa_get_keys(keys.key1, keys.key2, keys.key3), 0); }

    std::string openssl_cipher(const std::string &text) {
        const std::string line = "cloud_rsa public >" + (state.root() / "pub.pem").string() + " && printf '" +
                                 text + "' | openssl pkeyutl -encrypt -pubin -inkey " +
                                 (state.root() / "pub.pem").string() + " | base64";
        const Ran ran = shell(line);
        EXPECT_EQ(ran.status, 0);
        return ran.out;
    }

    StateFolder state;
    Keys keys;
};

// What any RSA library must do is checked by "extender check platform" (tests/check.cmake).
TEST_F(Rsa, TakesUpTo245BytesAndOnlyItsOwnKeys) {
    EXPECT_EQ(encrypt(keys, std::string(245, 'x')).value_or("").size(), 344U);
    EXPECT_EQ(encrypt(keys, std::string(246, 'x')), std::nullopt);
    const std::string good = encrypt(keys, "secret").value();
    const StateFolder other;
    Keys otherKeys;
    ASSERT_EQ(librsa_get_keys(otherKeys.key1, otherKeys.key2, otherKeys.key3), 0);
    ASSERT_STRNE(keys.key1, otherKeys.key1);
    EXPECT_EQ(decrypt(keys, encrypt(otherKeys, "secret").value()), std::nullopt);
    Keys garbage = keys;
    garbage.key3[0] = '!';
    EXPECT_EQ(decrypt(garbage, good), std::nullopt);
    Keys mixed = keys;
    memcpy(mixed.key3, otherKeys.key3, sizeof(mixed.key3));
    EXPECT_EQ(decrypt(mixed, good), std::nullopt);
    Keys unterminated = keys;
    memset(unterminated.key1, 'A', sizeof(unterminated.key1));
    EXPECT_EQ(encrypt(unterminated, "text"), std::nullopt);
    EXPECT_EQ(librsa_decrypt(nullptr, keys.key1, keys.key2, keys.key3), nullptr);
    EXPECT_EQ(librsa_decrypt(good.c_str(), keys.key1, keys.key2, nullptr), nullptr);
    EXPECT_EQ(librsa_encrypt(nullptr, keys.key1, keys.key2), nullptr);
    EXPECT_EQ(librsa_encrypt("text", nullptr, keys.key2), nullptr);
}

TEST_F(Rsa, OpensWhatOpensslClosedForTheExportedKey) {
    const std::string wrapped = openssl_cipher("my pass");
    ASSERT_GT(std::count(wrapped.begin(), wrapped.end(), '\n'), 1);
    EXPECT_EQ(decrypt(keys, wrapped), "my pass");
    EXPECT_EQ(decrypt(keys, " \r\n\t" + wrapped), "my pass");
    EXPECT_EQ(shell("cloud_rsa decrypt '" + wrapped + "'").out, "my pass\n");
    EXPECT_EQ(decrypt(keys, openssl_cipher("hidden\\000part")), std::nullopt);
}

TEST_F(Rsa, ClosesWhatOpensslOpensWithTheKeyFile) {
    EXPECT_EQ(shell("cloud_rsa encrypt 'my pass' | base64 -d | openssl pkeyutl -decrypt -inkey " +
                    state.key().string())
                  .out,
              "my pass");
}

TEST_F(Rsa, KeepsItsKey) {
    // With a key in place nothing is written, nor locked: this stands where it would be.
    std::filesystem::create_directory(state.key().string() + ".new");
    Keys again;
    ASSERT_EQ(librsa_get_keys(again.key1, again.key2, nullptr), 0);
    EXPECT_STREQ(again.key1, keys.key1);
    EXPECT_STREQ(again.key2, keys.key2);
    EXPECT_EQ(mode_of(state.key()), 0600U);
    EXPECT_EQ(mode_of(state.folder()), 0700U);
}

TEST(RsaKeyFile, IsMadeOnceByProcessesThatStartAtOnce) {
    const StateFolder state;
    write_file(state.key().string() + ".new", "what a killed writer left");
    const auto printKey = [&state](const std::string &name) {
        return [&state, name] {
            Keys keys;
            const int result = librsa_get_keys(keys.key1, keys.key2, keys.key3);
            write_file(state.root() / name, std::string(keys.key1) + keys.key3);
            return result;
        };
    };
    std::vector<Child> children;
    for (const char *name : {"a", "b", "c"}) {
        children.emplace_back(printKey(name));
    }
    for (Child &child : children) {
        EXPECT_EQ(child.wait(), 0);
    }
    EXPECT_EQ(text_of(state.root() / "a").size(), 688U);
    EXPECT_EQ(text_of(state.root() / "a"), text_of(state.root() / "b"));
    EXPECT_EQ(text_of(state.root() / "a"), text_of(state.root() / "c"));
    EXPECT_FALSE(std::filesystem::exists(state.key().string() + ".new"));
}

TEST(RsaKeyFile, IsNeverReplaced) {
    const StateFolder state;
    for (const std::string &text :
         {std::string("no key"), std::string(), shell("openssl genrsa -traditional 1024 2>/dev/null").out,
          shell("openssl ecparam -name prime256v1 -genkey -noout").out}) {
        write_file(state.key(), text);
        Keys keys;
        EXPECT_NE(librsa_get_keys(keys.key1, keys.key2, keys.key3), 0) << text;
        EXPECT_STREQ(keys.key1, "");
        EXPECT_EQ(text_of(state.key()), text);
        EXPECT_EQ(shell("cloud_rsa public").status, 1);
    }
}

TEST(RsaKeyFile, IsNeitherReadNorWrittenThroughWhatOthersPutThere) {
    const StateFolder state;
    Keys keys;
    ASSERT_EQ(librsa_get_keys(keys.key1, nullptr, nullptr), 0);
    const std::filesystem::path kept = state.root() / "kept";
    std::filesystem::rename(state.key(), kept);
    const std::string content = text_of(kept);
    for (const std::filesystem::path &place :
         {state.key(), std::filesystem::path(state.key().string() + ".new")}) {
        const auto refused = [&](const char *what) {
            EXPECT_NE(librsa_get_keys(keys.key1, nullptr, nullptr), 0) << what << " at " << place;
            EXPECT_EQ(text_of(kept), content) << what << " at " << place;
            std::filesystem::remove(place);
        };
        std::filesystem::create_symlink(kept, place);
        refused("a link");
        std::filesystem::create_hard_link(kept, place);
        refused("a second name");
        ASSERT_EQ(mkfifo(place.c_str(), 0600), 0);  // nobody is at its other end: it must not wait
        refused("a pipe");
    }
    EXPECT_EQ(librsa_get_keys(keys.key1, nullptr, nullptr), 0);
}

TEST(RsaTool, AnswersWrongUseWithItsUsage) {
    const StateFolder state;
    for (const char *line : {"", "public extra", "encrypt a b"}) {
        const Ran ran = shell(std::string("cloud_rsa ") + line);
        EXPECT_EQ(ran.status, 2) << line;
        EXPECT_THAT(ran.out, testing::StartsWith("Usage: ")) << line;
    }
    for (const char *tool : {"cloud_rsa -h", "cloud_rsa --help", "cloud_rsa encrypt --help", "cloud_image -h",
                             "cloud_image --help", "cloud_store -h", "cloud_store --help"}) {
        const Ran ran = shell(std::string(tool) + " 2>/dev/null");
        EXPECT_EQ(ran.status, 0) << tool;
        EXPECT_THAT(ran.out, testing::StartsWith("Usage: ")) << tool;
    }
    for (const auto &[line, said] :
         {std::pair{"cloud_rsa encypt", "no command encypt; did you mean encrypt?"},
          std::pair{"cloud_store get acount", "no record acount; did you mean account?"},
          std::pair{"cloud_image make --versoin 1", "did you mean --version?"},
          std::pair{"cloud_store --verison", "no option --verison; did you mean --version?"},
          std::pair{"cloud_image info --jsn image", "no option --jsn; did you mean --json?"},
          std::pair{"cloud_rsa other", "no command other"}}) {
        const Ran ran = shell(line);
        EXPECT_EQ(ran.status, 2) << line;
        EXPECT_THAT(ran.out, testing::HasSubstr(said));
    }
    EXPECT_FALSE(std::filesystem::exists(state.key()));
    EXPECT_EQ(shell("echo Secret-1 | cloud_rsa encrypt | cloud_rsa decrypt").out, "Secret-1\n");
    write_file(state.root() / "broken", "no key");
    EXPECT_THAT(shell("CLOUD_RSA_KEY_FILE='" + (state.root() / "broken").string() + "' cloud_rsa public").out,
                testing::HasSubstr("/broken: cannot be read or made: it does not hold"));
    EXPECT_THAT(shell("cloud_image make --version 1 --payload /nowhere -o /nowhere/x").out,
                testing::HasSubstr("/nowhere: No such file"));
    for (const char *line : {"cloud_rsa public", "cloud_store dump", "cloud_store --help"}) {
        const Ran full = shell(std::string(line) + " >/dev/full");
        EXPECT_EQ(full.status, 1) << line;
        EXPECT_THAT(full.out, testing::HasSubstr("standard output: cannot be written: No space left"));
    }
    for (const std::string text : {"--help", "--", "-x"}) {
        EXPECT_EQ(shell("cloud_rsa decrypt -- \"$(cloud_rsa encrypt -- " + text + ")\"").out, text + "\n");
    }
}

TEST(RsaTool, ShowsWhatIsTypedAgainWhenItIsInterrupted) {
    const StateFolder state;
    const std::string tool = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "cloud_rsa";
    int terminal = -1;
    int inside = -1;
    ASSERT_EQ(openpty(&terminal, &inside, nullptr, nullptr, nullptr), 0);
    Child asking([&] {
        login_tty(inside);
        return execl(tool.c_str(), "cloud_rsa", "encrypt", nullptr);
    });
    const auto echoes = [&] {
        termios now{};
        return tcgetattr(inside, &now) == 0 && (now.c_lflag & ECHO) != 0;
    };
    char byte = 0;
    while (byte != ':' && read(terminal, &byte, 1) == 1) {
    }
    EXPECT_FALSE(echoes());
    EXPECT_EQ(write(terminal, "\x03", 1), 1);
    EXPECT_EQ(asking.wait(), -1) << "the signal ends it";
    EXPECT_TRUE(echoes());
    close(terminal);
    close(inside);
}

}  // namespace
