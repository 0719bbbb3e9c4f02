// The device's key pair: its file, and the texts in which it goes through the RSA interface.
//
// The file is a PEM private key (PKCS#1), mode 0600, made on first use. The texts are Base64 of the
// big-endian numbers: key1 the modulus, key2 the public exponent, key3 the private exponent.
#pragma once

#include <mbedtls/pk.h>
#include <mbedtls/rsa.h>

#include <array>
#include <cstddef>

#include "rsa.h"

inline constexpr unsigned kKeyBits = 2048;
inline constexpr size_t kKeySize = kKeyBits / 8;
inline constexpr size_t kKeyTextSize = RSA_KEY_TEXT_BYTES;  // of each of the interface's key buffers
inline constexpr size_t kCipherTextSize = (kKeySize + 2) / 3 * 4 + 1;  // Base64 with its terminator

/// Random bytes for the crypto library, from the kernel. @return 0; non-zero when there are none.
int rsa_random(void *unused, unsigned char *output, size_t length);

/// A key of its own, wiped when its scope ends.
class RsaKey {
public:
    RsaKey() { mbedtls_pk_init(&pk_); }
    RsaKey(const RsaKey &) = delete;
    RsaKey &operator=(const RsaKey &) = delete;
    ~RsaKey() { mbedtls_pk_free(&pk_); }

    /// Reads the device's key; makes and stores it when there is none. Processes that start at once agree
    /// on one key. A key file that is there but broken is a failure, never replaced.
    [[nodiscard]] bool loadOrMake();

    /// Takes a key from its texts; key3 null: the public key alone. @return false for anything else.
    [[nodiscard]] bool fromTexts(const char *key1, const char *key2, const char *key3);

    /// Fills the buffers (kKeyTextSize each, each may be null) with the texts of a whole key.
    [[nodiscard]] bool toTexts(char *key1, char *key2, char *key3);

    [[nodiscard]] mbedtls_pk_context *pk() { return &pk_; }
    [[nodiscard]] mbedtls_rsa_context *rsa() { return mbedtls_pk_rsa(pk_); }

private:
    enum class Loaded { kGood, kAbsent, kBroken };

    [[nodiscard]] Loaded load(const char *path);
    [[nodiscard]] bool make();
    [[nodiscard]] bool setUp();

    mbedtls_pk_context pk_;
};
