// The device's RSA keys for the length of a scope.
#pragma once

#include <array>
#include <cstring>

#include "cloud_secret.h"
#include "rsa.h"

namespace cloud_account {

/// Holds the key texts of the platform's library; empty where it has none, and what uses them then fails.
class RsaKeys {
public:
    RsaKeys() = default;
    RsaKeys(const RsaKeys &) = delete;
    RsaKeys &operator=(const RsaKeys &) = delete;
    ~RsaKeys() { explicit_bzero(private_.data(), private_.size()); }

    /// All keys, for decryption.
    void load() { librsa_get_keys(modulus_.data(), exponent_.data(), private_.data()); }
    /// Without the private one.
    void loadPublic() { librsa_get_keys(modulus_.data(), exponent_.data(), nullptr); }

    /// @return the plain text; null when it is no cipher text of this device.
    [[nodiscard]] SecretText decrypt(const char *cipher) {
        return SecretText(librsa_decrypt(cipher, modulus_.data(), exponent_.data(), private_.data()));
    }
    /// @return the cipher text; null when the key does not take the text.
    [[nodiscard]] SecretText encrypt(const char *plain) {
        return SecretText(librsa_encrypt(plain, modulus_.data(), exponent_.data()));
    }

private:
    std::array<char, RSA_KEY_TEXT_BYTES> modulus_{};
    std::array<char, RSA_KEY_TEXT_BYTES> exponent_{};
    std::array<char, RSA_KEY_TEXT_BYTES> private_{};
};

}  // namespace cloud_account
