#include "secret.h"

#include <algorithm>

namespace emulator {
namespace {

constexpr std::string_view kMark = "masked-";
constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyz";

}  // namespace

std::string_view secret_kind(std::string_view member) {
    const auto *const found = std::find_if(kSecretMembers.begin(), kSecretMembers.end(),
                                           [&](const SecretMember &one) { return one.name == member; });
    return found == kSecretMembers.end() ? std::string_view{} : found->kind;
}

std::string pseudonym(std::string_view kind, size_t number) {
    return std::string(kMark) + std::string(kind) + '-' + std::to_string(number);
}

std::optional<FoundPseudonym> find_pseudonym(std::string_view text) {
    for (size_t begin = 0; (begin = text.find(kMark, begin)) != std::string_view::npos; ++begin) {
        const size_t dash = text.find_first_not_of(kLetters, begin + kMark.size());
        if (dash == std::string_view::npos || text[dash] != '-') {
            continue;
        }
        const size_t end = std::min(text.find_first_not_of(kDigits, dash + 1), text.size());
        if (end > dash + 1) {
            return FoundPseudonym{begin, end - begin};
        }
    }
    return {};
}

}  // namespace emulator
