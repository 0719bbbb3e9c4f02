// Which members of messages hold secrets, and the pseudonyms that stand for them in a journal that is given
// away. docs/emulator.md has the same table.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace emulator {

struct SecretMember {
    std::string_view name;
    std::string_view kind;  ///< "password", "token", "account" or "device"
};

inline constexpr std::array kSecretMembers{
    SecretMember{"cloudPassword", "password"},
    SecretMember{"password", "password"},
    SecretMember{"pwd", "password"},
    SecretMember{"deviceToken", "token"},
    SecretMember{"token", "token"},
    SecretMember{"accessToken", "token"},
    SecretMember{"refreshToken", "token"},
    SecretMember{"cloudUserName", "account"},
    SecretMember{"ownerAccount", "account"},
    SecretMember{"userAccount", "account"},
    SecretMember{"account", "account"},
    SecretMember{"userName", "account"},
    SecretMember{"username", "account"},
    SecretMember{"email", "account"},
    SecretMember{"owner", "account"},
    SecretMember{"deviceId", "device"},
    SecretMember{"devid", "device"},
    SecretMember{"deviceMac", "device"},
    SecretMember{"mac", "device"},
    SecretMember{"hwId", "device"},
    SecretMember{"fwId", "device"},
    SecretMember{"oemId", "device"},
    SecretMember{"hardware_id", "device"},
    SecretMember{"firmware_id", "device"},
    SecretMember{"oem_id", "device"},
};

/// The kind of what a member holds; "" where it is not in the table.
[[nodiscard]] std::string_view secret_kind(std::string_view member);

/// "masked-account-1" for the first account of a journal.
[[nodiscard]] std::string pseudonym(std::string_view kind, size_t number);

/// A pseudonym within a text.
struct FoundPseudonym {
    size_t begin;
    size_t size;
};

/// The first pseudonym in the text, of any kind and number; none where there is none.
[[nodiscard]] std::optional<FoundPseudonym> find_pseudonym(std::string_view text);

}  // namespace emulator
