// The device's RSA keys for the length of a scope, and texts that must not stay in memory.
#pragma once

#include <array>
#include <cstring>

#include "cloud_secret.h"
#include "rsa.h"

namespace cloud_account {

/// Holds the key texts of the platform's library; all empty when it has none.
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
    [[nodiscard]] SecretText encrypt(const char *plain) {
        return SecretText(librsa_encrypt(plain, modulus_.data(), exponent_.data()));
    }

private:
    static constexpr size_t kKeyRoom = 512;
    std::array<char, kKeyRoom> modulus_{};
    std::array<char, kKeyRoom> exponent_{};
    std::array<char, kKeyRoom> private_{};
};

}  // namespace cloud_account
