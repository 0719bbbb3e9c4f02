// The store's firmware commands, on the image's one path. Nothing is installed that is not to be.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "checks.h"

namespace emulator::check {
namespace {

namespace fs = std::filesystem;

constexpr const char *kImagePath = "/tmp/httpUploadFile.bin";
constexpr const char *kVerify = "op 0xe0002 - 0 132 132 1";
constexpr const char *kInstall = "command 0xe0001 00000000 4 1 1";
constexpr size_t kReplySize = 132;
constexpr size_t kWord = 4;

constexpr const char *kVerifies =
    "The first signed word of the reply is 0 for a good image, else an error number.";
constexpr const char *kInstalls = "The first word of the reply is 0 when that was accepted.";
constexpr const char *kTransaction =
    "without one both are refused with a code other than 0. So is a second step 2 while one is open.";

// @return whether the image was found good: the call succeeded, and its reply is 0.
bool _verified(Probe &probe) {
    const std::vector<std::string> words = probe.ask(kVerify);
    const std::string reply = output_of(words.at(1));
    const bool answered = words[0] == "0";
    require(!answered || reply != untouched(kReplySize), "there is no reply");
    return answered && reply.substr(0, kWord) == std::string(kWord, '\0');
}

bool _installed(Probe &probe) {
    const std::vector<std::string> words = probe.ask(kInstall);
    if (words.at(0) != "0") {
        return false;
    }
    const std::string reply = decoded(words.at(2)).value_or("");
    require(reply.size() >= kWord, "the reply is shorter than a word");
    return reply.substr(0, kWord) == std::string(kWord, '\0');
}

std::string _good_image(const Platform &platform) {
    if (platform.image.empty()) {
        throw Skipped("it needs an image that the platform takes (--image)");
    }
    std::ifstream file(platform.image, std::ios::binary);
    const std::string image{std::istreambuf_iterator<char>(file), {}};
    require(!image.empty(), platform.image + " cannot be read");
    return image;
}

void _put_image(const std::string &bytes) {
    std::ofstream(kImagePath, std::ios::binary) << bytes;
}

void _open_transaction(Probe &probe) {
    require(probe.ask("begin 0").at(0) == "0", "no transaction is to be had");
}

void _refuses_what_is_none(const Platform &platform) {
    Probe probe(platform, Library::kWrapper);
    require(!_verified(probe), "an image that is not there was found good");
    fs::create_directory(kImagePath);
    require(!_verified(probe), "a folder was found good");
    fs::remove(kImagePath);
    require(mkfifo(kImagePath, 0600) == 0, "no pipe can be made");
    require(!_verified(probe), "a pipe was found good");
    fs::remove(kImagePath);
    for (const size_t size : {size_t{0}, size_t{1}, size_t{100}, size_t{5000}, size_t{100000}}) {
        _put_image(pattern(size, 11));
        require(!_verified(probe), std::to_string(size) + " bytes of noise were found good");
    }
}

void _takes_a_good_one(const Platform &platform) {
    _put_image(_good_image(platform));
    Probe probe(platform, Library::kWrapper);
    require(_verified(probe), "the good image was refused");
    require(_verified(probe), "the second look at the good image refused it");
}

void _finds_damage(const Platform &platform) {
    const std::string good = _good_image(platform);
    Probe probe(platform, Library::kWrapper);
    constexpr size_t kPlaces = 16;
    for (size_t i = 0; i <= kPlaces; ++i) {
        std::string image = good;
        const size_t at = std::min(i * image.size() / kPlaces, image.size() - 1);
        image[at] = static_cast<char>(image[at] ^ 1);
        _put_image(image);
        require(!_verified(probe), "a changed bit at offset " + std::to_string(at) + " was not found");
    }
    _put_image(good.substr(0, good.size() - 1));
    require(!_verified(probe), "an image that lacks its last byte was found good");
    _put_image(good.substr(0, good.size() / 2));
    require(!_verified(probe), "half of an image was found good");
}

void _keeps_one_transaction(const Platform &platform) {
    Probe probe(platform, Library::kWrapper);
    require(probe.ask("withdraw").at(0) != "0", "a transaction was withdrawn that nobody had opened");
    require(!_installed(probe), "without a transaction an image was accepted");
    _open_transaction(probe);
    require(probe.ask("begin 0").at(0) != "0", "a second transaction was opened");
    require(probe.ask("withdraw").at(0) == "0", "the transaction was not given back");
    require(probe.ask("withdraw").at(0) != "0", "a transaction was withdrawn twice");
    require(!_installed(probe), "after the withdrawal an image was accepted");
}

void _opens_again(const Platform &platform) {
    Probe probe(platform, Library::kWrapper);
    for (int i = 0; i < 3; ++i) {
        _open_transaction(probe);
        require(probe.ask("withdraw").at(0) == "0", "the transaction was not given back");
    }
    _open_transaction(probe);
    probe.kill();  // a process that dies takes its transaction with it
    Probe next(platform, Library::kWrapper);
    _open_transaction(next);
}

void _installs_no_noise(const Platform &platform) {
    Probe probe(platform, Library::kWrapper);
    _put_image(pattern(5000, 12));
    _open_transaction(probe);
    require(!_installed(probe), "noise was accepted as an image");
    require(probe.ask("withdraw").at(0) == "0", "the transaction was not given back after a refusal");
}

void _installs(const Platform &platform) {
    if (!platform.install) {
        throw Skipped("it installs the image (--install)");
    }
    _put_image(_good_image(platform));
    Probe probe(platform, Library::kWrapper);
    require(_verified(probe), "the good image was refused");
    _open_transaction(probe);
    require(_installed(probe), "the good image was not accepted");
}

}  // namespace

Checks firmware_checks(const Platform &platform) {
    const auto row = [&platform](const char *name, const char *sentence, void (*work)(const Platform &)) {
        return Check{std::string("firmware/") + name, kPlatformPage, sentence,
                     [platform, work] { work(platform); }};
    };
    return {
        row("no-image", kVerifies, _refuses_what_is_none),
        row("good", kVerifies, _takes_a_good_one),
        row("damaged", kVerifies, _finds_damage),
        row("transaction", kTransaction, _keeps_one_transaction),
        row("withdraw", "`wrpWithdrawTransID()` gives the transaction back after a refusal.", _opens_again),
        row("install-noise", kInstalls, _installs_no_noise),
        row("install", kInstalls, _installs)};
}

}  // namespace emulator::check
