// The device's RSA: its key texts, texts of every length and byte, and what is no cipher text.
#include <future>

#include "checks.h"

namespace emulator::check {
namespace {

constexpr size_t kKeyRoom = 512;
constexpr size_t kLongestCipher = 512;
constexpr size_t kSurelyTaken = 64;  // bytes of a text that every key takes
constexpr size_t kLongestTried = 520;

constexpr const char *kKeys =
    "`librsa_get_keys` fills up to three 512-byte buffers with key texts that the program only carries to "
    "`librsa_decrypt` (all three) and `librsa_encrypt` (the first two).";
constexpr const char *kSameKeys = "The texts are the same in every process.";
constexpr const char *kRound =
    "What was encrypted decrypts to the same text, whatever bytes but NUL it has and at least up to 64 of "
    "them.";
constexpr const char *kCipher =
    "A cipher text must be plain text on one line without NUL of at most 512 characters, since it is what "
    "the account "
    "record keeps.";
constexpr const char *kNull =
    "Both calls return a text for `free`, or null for a text that is too long and for anything that is no "
    "cipher text "
    "of the key.";

class Rsa {
public:
    explicit Rsa(const Platform &platform) : probe_(platform, Library::kRsa) {
        const std::vector<std::string> words = probe_.ask("keys 1 1 1");
        require(words.at(0) == "0", "there are no keys: " + words.at(0));
        for (size_t i = 1; i < words.size(); ++i) {
            const std::string buffer = output_of(words[i]);
            require(buffer.find('\0') < kKeyRoom, "key text " + std::to_string(i) + " has no end");
            keys_.push_back(buffer.substr(0, buffer.find('\0')));
        }
    }
    std::optional<std::string> encrypt(const std::string &text) {
        return decoded(probe_.ask("encrypt " + coded(text) + _key(0) + _key(1)).at(1));
    }
    std::optional<std::string> decrypt(const std::string &cipher) {
        return decoded(probe_.ask("decrypt " + coded(cipher) + _key(0) + _key(1) + _key(2)).at(1));
    }
    [[nodiscard]] const std::vector<std::string> &keys() const { return keys_; }
    [[nodiscard]] Probe &probe() { return probe_; }

private:
    // In the whole room that a program gives it.
    [[nodiscard]] std::string _key(size_t i) const {
        std::string room = keys_.at(i);
        room.resize(kKeyRoom, '\0');
        return " " + coded(room);
    }

    Probe probe_;
    std::vector<std::string> keys_;
};

// @return false for a text that is refused.
bool _round(Rsa &rsa, const std::string &text) {
    const std::optional<std::string> cipher = rsa.encrypt(text);
    if (!cipher) {
        return false;
    }
    const std::optional<std::string> plain = rsa.decrypt(*cipher);
    const std::string what = "a text of " + std::to_string(text.size()) + " bytes ";
    require(plain.has_value(), what + "was encrypted but not decrypted");
    require(*plain == text, what + "came back as another of " + std::to_string(plain->size()));
    return true;
}

void _fills_keys(const Platform &platform) {
    Rsa rsa(platform);
    for (const std::string &key : rsa.keys()) {
        require(!key.empty(), "a key text is empty");
    }
    require(rsa.probe().ask("keys 1 1 0").at(0) == "0", "two buffers alone were not filled");
}

void _agrees(const Platform &platform) {
    std::vector<std::future<std::vector<std::string>>> others;
    for (int i = 0; i < 3; ++i) {  // at once, where no key may have been made yet
        others.push_back(std::async(std::launch::async, [&platform] { return Rsa(platform).keys(); }));
    }
    std::vector<std::vector<std::string>> all;
    for (auto &other : others) {
        all.push_back(other.get());
    }
    require(all[0] == all[1] && all[0] == all[2], "three processes that started at once have different keys");
    require(Rsa(platform).keys() == all[0], "a later process has another key");
}

void _takes_each_length(const Platform &platform) {
    Rsa rsa(platform);
    for (size_t size = 0; size <= kSurelyTaken; ++size) {
        require(_round(rsa, letters(size, 13)) || size == 0,
                "a text of " + std::to_string(size) + " bytes was refused");
    }
}

void _takes_each_byte(const Platform &platform) {
    Rsa rsa(platform);
    for (unsigned first = 1; first < 256; first += kSurelyTaken - 1) {
        std::string text;
        for (unsigned byte = first; byte < 256 && byte < first + kSurelyTaken - 1; ++byte) {
            text += static_cast<char>(byte);
        }
        require(_round(rsa, text), "a text with byte " + std::to_string(first) + " was refused");
    }
}

void _refuses_long_texts(const Platform &platform) {
    Rsa rsa(platform);
    bool refused = false;
    for (size_t size = kSurelyTaken; size <= kLongestTried; size += size % 9 + 1) {
        const bool taken = _round(rsa, letters(size, 14));
        require(!taken || !refused,
                "a text of " + std::to_string(size) + " bytes was taken, but not a shorter one");
        refused = !taken;
    }
}

void _makes_plain_ciphers(const Platform &platform) {
    Rsa rsa(platform);
    for (const size_t size : {size_t{1}, size_t{16}, kSurelyTaken}) {
        const std::string cipher = rsa.encrypt(letters(size, 15)).value_or("");
        require(!cipher.empty(), "there is no cipher text");
        require(cipher.size() <= kLongestCipher,
                "a cipher text has " + std::to_string(cipher.size()) + " characters");
        for (const char c : cipher) {
            require(c > ' ' && c < 127, "a cipher text holds what is no plain character");
        }
    }
}

void _decrypts_no_noise(const Platform &platform) {
    Rsa rsa(platform);
    const std::string good = rsa.encrypt("secret").value_or("");
    require(good.size() > 8, "there is no cipher text");
    std::string damaged = good;
    damaged[good.size() / 2] = damaged[good.size() / 2] == 'A' ? 'B' : 'A';
    const std::string half = good.substr(0, good.size() / 2);
    for (const std::string &cipher :
         {std::string(), std::string("plain"), std::string("===="), half, good + good, damaged, "!" + good,
          std::string(kLongestCipher, '/'), std::string(100000, 'A')}) {
        require(!rsa.decrypt(cipher).has_value(), "this was decrypted: " + cipher.substr(0, 40));
    }
    require(rsa.decrypt(good) == "secret", "after all that the good one is not decrypted");
}

void _is_silent(const Platform &platform) {
    Rsa rsa(platform);
    static_cast<void>(_round(rsa, "text"));
    static_cast<void>(rsa.decrypt("plain"));
    require(rsa.probe().printed().empty(), "it printed: " + rsa.probe().printed());
}

}  // namespace

Checks rsa_checks(const Platform &platform) {
    const auto row = [&platform](const char *name, const char *sentence, void (*work)(const Platform &)) {
        return Check{std::string("rsa/") + name, kPlatformPage, sentence,
                     [platform, work] { work(platform); }};
    };
    return {row("exports", "all functions have C linkage",
                [](const Platform &each) { Probe(each, Library::kRsa); }),
            row("keys", kKeys, _fills_keys),
            row("same-keys", kSameKeys, _agrees),
            row("lengths", kRound, _takes_each_length),
            row("bytes", kRound, _takes_each_byte),
            row("long", kNull, _refuses_long_texts),
            row("cipher", kCipher, _makes_plain_ciphers),
            row("noise", kNull, _decrypts_no_noise),
            row("silent", "nothing in them logs", _is_silent)};
}

}  // namespace emulator::check
