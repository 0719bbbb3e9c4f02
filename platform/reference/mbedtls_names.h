// The calls that mbedTLS 2.28 and 3.6 spell differently, under one name each. Threads: as the library's own.
#pragma once

#include <mbedtls/pk.h>
#include <mbedtls/rsa.h>
#include <mbedtls/sha256.h>
#include <mbedtls/version.h>

#include <cstddef>
#include <span>

/// All as in the library's headers: 0 is success. What needs random bytes takes them from random.
using CryptoRandom = int (*)(void *context, unsigned char *output, size_t length);

#if MBEDTLS_VERSION_NUMBER >= 0x03000000
[[nodiscard]] inline int crypto_startSha256(mbedtls_sha256_context *state) {
    return mbedtls_sha256_starts(state, 0);
}
[[nodiscard]] inline int crypto_updateSha256(mbedtls_sha256_context *state, const void *bytes, size_t size) {
    return mbedtls_sha256_update(state, static_cast<const unsigned char *>(bytes), size);
}
[[nodiscard]] inline int crypto_finishSha256(mbedtls_sha256_context *state, unsigned char *digest) {
    return mbedtls_sha256_finish(state, digest);
}
/// @param pem  ends in a NUL, which counts.
[[nodiscard]] inline int crypto_parseKey(mbedtls_pk_context *key, std::span<const unsigned char> pem,
                                         CryptoRandom random) {
    return mbedtls_pk_parse_key(key, pem.data(), pem.size(), nullptr, 0, random, nullptr);
}
[[nodiscard]] inline int crypto_decrypt(mbedtls_rsa_context *key, CryptoRandom random,
                                        const unsigned char *cipher, std::span<unsigned char> plain,
                                        size_t *length) {
    return mbedtls_rsa_pkcs1_decrypt(key, random, nullptr, length, cipher, plain.data(), plain.size());
}
[[nodiscard]] inline int crypto_encrypt(mbedtls_rsa_context *key, CryptoRandom random,
                                        std::span<const unsigned char> plain, unsigned char *cipher) {
    return mbedtls_rsa_pkcs1_encrypt(key, random, nullptr, plain.size(), plain.data(), cipher);
}
#else
[[nodiscard]] inline int crypto_startSha256(mbedtls_sha256_context *state) {
    return mbedtls_sha256_starts_ret(state, 0);
}
[[nodiscard]] inline int crypto_updateSha256(mbedtls_sha256_context *state, const void *bytes, size_t size) {
    return mbedtls_sha256_update_ret(state, static_cast<const unsigned char *>(bytes), size);
}
[[nodiscard]] inline int crypto_finishSha256(mbedtls_sha256_context *state, unsigned char *digest) {
    return mbedtls_sha256_finish_ret(state, digest);
}
/// @param pem  ends in a NUL, which counts.
[[nodiscard]] inline int crypto_parseKey(mbedtls_pk_context *key, std::span<const unsigned char> pem,
                                         CryptoRandom /*unused*/) {
    return mbedtls_pk_parse_key(key, pem.data(), pem.size(), nullptr, 0);
}
[[nodiscard]] inline int crypto_decrypt(mbedtls_rsa_context *key, CryptoRandom random,
                                        const unsigned char *cipher, std::span<unsigned char> plain,
                                        size_t *length) {
    return mbedtls_rsa_pkcs1_decrypt(key, random, nullptr, MBEDTLS_RSA_PRIVATE, length, cipher, plain.data(),
                                     plain.size());
}
[[nodiscard]] inline int crypto_encrypt(mbedtls_rsa_context *key, CryptoRandom random,
                                        std::span<const unsigned char> plain, unsigned char *cipher) {
    return mbedtls_rsa_pkcs1_encrypt(key, random, nullptr, MBEDTLS_RSA_PUBLIC, plain.size(), plain.data(),
                                     cipher);
}
#endif
