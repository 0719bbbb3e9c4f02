#include "rsa_key.h"

#include <fcntl.h>
#include <mbedtls/base64.h>
#include <mbedtls/platform_util.h>
#include <sys/random.h>

#include <cerrno>
#include <cstring>

#include "mbedtls_names.h"
#include "state_file.h"

namespace {

constexpr int kPublicExponent = 65537;
constexpr size_t kExponentSize = 4;
constexpr size_t kPemRoom = 4096;  // a 2048-bit key takes 1.7 KiB

template <size_t kSize>
class SecretBytes : public std::array<unsigned char, kSize> {
public:
    SecretBytes() : std::array<unsigned char, kSize>{} {}
    SecretBytes(const SecretBytes &) = delete;
    SecretBytes &operator=(const SecretBytes &) = delete;
    ~SecretBytes() { mbedtls_platform_zeroize(this->data(), kSize); }
};

// @return bytes of the number; 0 when the text is none that fits.
[[nodiscard]] size_t _decode(const char *text, std::span<unsigned char> room) {
    size_t length = 0;
    const size_t textLength = strnlen(text, kKeyTextSize);
    const auto *const bytes = reinterpret_cast<const unsigned char *>(text);
    if (textLength == kKeyTextSize ||
        mbedtls_base64_decode(room.data(), room.size(), &length, bytes, textLength) != 0) {
        return 0;
    }
    return length;
}

[[nodiscard]] bool _encode(std::span<const unsigned char> number, char *text) {
    size_t length = 0;
    return text == nullptr || mbedtls_base64_encode(reinterpret_cast<unsigned char *>(text), kKeyTextSize,
                                                    &length, number.data(), number.size()) == 0;
}

}  // namespace

int rsa_random(void * /*unused*/, unsigned char *output, size_t length) {
    while (length > 0) {
        const ssize_t got = getrandom(output, length, 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return MBEDTLS_ERR_RSA_RNG_FAILED;
        }
        output += got;
        length -= static_cast<size_t>(got);
    }
    return 0;
}

bool RsaKey::loadOrMake() {
    PathText path;
    if (!state_keyFile(&path)) {
        return false;
    }
    Loaded loaded = load(path.data());
    if (loaded != Loaded::kAbsent) {
        return loaded == Loaded::kGood;
    }
    // Making a key takes a small device many seconds: who comes second waits for the first's.
    PendingFile file;
    if (!file.open(path, PendingFile::Wait::kUntilFree)) {
        return false;
    }
    loaded = load(path.data());
    if (loaded != Loaded::kAbsent) {
        return loaded == Loaded::kGood;
    }
    SecretBytes<kPemRoom> pem;
    return make() && mbedtls_pk_write_key_pem(&pk_, pem.data(), pem.size()) == 0 &&
           state_writeAll(file.fd(), {pem.data(), strlen(reinterpret_cast<const char *>(pem.data()))}) &&
           file.commit();
}

bool RsaKey::fromTexts(const char *key1, const char *key2, const char *key3) {
    if (key1 == nullptr || key2 == nullptr || !setUp()) {
        return false;
    }
    std::array<unsigned char, kKeySize> modulus;
    std::array<unsigned char, kExponentSize> exponent;
    SecretBytes<kKeySize> secret;
    const size_t modulusSize = _decode(key1, modulus);
    const size_t exponentSize = _decode(key2, exponent);
    const size_t secretSize = key3 != nullptr ? _decode(key3, secret) : 0;
    if (modulusSize != kKeySize || exponentSize == 0 || (key3 != nullptr && secretSize == 0)) {
        return false;
    }
    // From all three numbers the library finds the two primes again.
    if (mbedtls_rsa_import_raw(rsa(), modulus.data(), modulusSize, nullptr, 0, nullptr, 0,
                               key3 != nullptr ? secret.data() : nullptr, secretSize, exponent.data(),
                               exponentSize) != 0 ||
        mbedtls_rsa_complete(rsa()) != 0) {
        return false;
    }
    return (key3 != nullptr ? mbedtls_rsa_check_privkey(rsa()) : mbedtls_rsa_check_pubkey(rsa())) == 0;
}

bool RsaKey::toTexts(char *key1, char *key2, char *key3) {
    std::array<unsigned char, kKeySize> modulus;
    std::array<unsigned char, kExponentSize> exponent;
    SecretBytes<kKeySize> secret;
    return mbedtls_rsa_export_raw(rsa(), modulus.data(), modulus.size(), nullptr, 0, nullptr, 0,
                                  secret.data(), secret.size(), exponent.data(), exponent.size()) == 0 &&
           _encode(modulus, key1) && _encode(exponent, key2) && _encode(secret, key3);
}

RsaKey::Loaded RsaKey::load(const char *path) {
    const UniqueFd fd(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.ok()) {
        return errno == ENOENT ? Loaded::kAbsent : Loaded::kBroken;
    }
    struct stat found {};
    if (fstat(fd.get(), &found) != 0 || !state_isOwnFile(found)) {
        errno = EPERM;
        return Loaded::kBroken;
    }
    SecretBytes<kPemRoom> pem;
    const ssize_t got = state_readAll(fd.get(), {pem.data(), pem.size() - 1});
    if (got <= 0 || crypto_parseKey(&pk_, {pem.data(), static_cast<size_t>(got) + 1}, rsa_random) != 0 ||
        mbedtls_pk_get_type(&pk_) != MBEDTLS_PK_RSA || mbedtls_rsa_get_len(rsa()) != kKeySize) {
        errno = EBADMSG;
        return Loaded::kBroken;
    }
    return Loaded::kGood;
}

bool RsaKey::make() {
    return setUp() && mbedtls_rsa_gen_key(rsa(), rsa_random, nullptr, kKeyBits, kPublicExponent) == 0;
}

bool RsaKey::setUp() {
    return mbedtls_pk_setup(&pk_, mbedtls_pk_info_from_type(MBEDTLS_PK_RSA)) == 0;
}
