// The device's RSA: PKCS#1 v1.5 padding, cipher texts in Base64. The key goes through the caller's
// buffers as texts (rsa_key.h), so that a cipher text is opened with the key that it was handed with.

#pragma GCC visibility push(default)
#include "rsa.h"
#pragma GCC visibility pop

#include <mbedtls/base64.h>
#include <mbedtls/platform_util.h>

#include <cstring>
#include <memory>

#include "cloud_owner.h"
#include "mbedtls_names.h"
#include "rsa_key.h"

namespace {

using CipherBytes = std::array<unsigned char, kKeySize>;

[[nodiscard]] constexpr bool _is_space(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Accepts blanks and line breaks anywhere: tools wrap Base64, forms and shells leave an end of line.
[[nodiscard]] bool _decode_cipher(const char *text, CipherBytes *cipher) {
    std::array<unsigned char, kCipherTextSize - 1> packed;
    size_t used = 0;
    for (; *text != '\0'; ++text) {
        if (_is_space(*text)) {
            continue;
        }
        if (used == packed.size()) {
            return false;
        }
        packed[used++] = static_cast<unsigned char>(*text);
    }
    size_t length = 0;
    return mbedtls_base64_decode(cipher->data(), cipher->size(), &length, packed.data(), used) == 0 &&
           length == cipher->size();
}

}  // namespace

int librsa_get_keys(char *key1, char *key2, char *key3) {
    RsaKey key;
    return key.loadOrMake() && key.toTexts(key1, key2, key3) ? 0 : -1;
}

char *librsa_decrypt(const char *cipherText, char *key1, char *key2, char *key3) {
    CipherBytes cipher;
    RsaKey key;
    if (cipherText == nullptr || key3 == nullptr || !_decode_cipher(cipherText, &cipher) ||
        !key.fromTexts(key1, key2, key3)) {
        return nullptr;
    }
    std::array<unsigned char, kKeySize> plain;
    size_t length = 0;
    HeapText text;
    // A NUL inside would hide the rest of the text from every reader.
    if (crypto_decrypt(key.rsa(), rsa_random, cipher.data(), plain, &length) == 0 &&
        memchr(plain.data(), '\0', length) == nullptr) {
        text.reset(static_cast<char *>(malloc(length + 1)));
        if (text != nullptr) {
            memcpy(text.get(), plain.data(), length);
            text.get()[length] = '\0';
        }
    }
    mbedtls_platform_zeroize(plain.data(), plain.size());
    return text.release();
}

char *librsa_encrypt(const char *plainText, char *key1, char *key2) {
    RsaKey key;
    if (plainText == nullptr || !key.fromTexts(key1, key2, nullptr)) {
        return nullptr;
    }
    CipherBytes cipher;
    const auto *const plain = reinterpret_cast<const unsigned char *>(plainText);
    // Refuses what is longer than the key less the padding: 245 bytes.
    if (crypto_encrypt(key.rsa(), rsa_random, {plain, strlen(plainText)}, cipher.data()) != 0) {
        return nullptr;
    }
    HeapText text(static_cast<char *>(malloc(kCipherTextSize)));
    size_t length = 0;
    if (text == nullptr ||
        mbedtls_base64_encode(reinterpret_cast<unsigned char *>(text.get()), kCipherTextSize, &length,
                              cipher.data(), cipher.size()) != 0) {
        return nullptr;
    }
    return text.release();
}
