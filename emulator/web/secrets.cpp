#include "secrets.h"

#include <algorithm>
#include <string_view>

#include "secret.h"
#include "wire.h"

namespace emulator {
namespace {

constexpr std::string_view kCover = "\u2022\u2022\u2022\u2022";
constexpr size_t kShortest = 4;  // shorter ones would cover half of the page
constexpr size_t kDepth = 5;     // as it is, and as it stands in up to four texts within texts

void _replace_all(std::string &text, const std::string &what) {
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += kCover.size()) {
        text.replace(at, what.size(), kCover);
    }
}

// Where a run of backslashes that ends in a quote begins: a quote within n texts has 2^n - 1 of them.
struct Quote {
    size_t at = std::string::npos;
    size_t slashes = 0;
};

Quote _find_quote(const std::string &text, size_t from) {
    const size_t quote = text.find('"', from);
    if (quote == std::string::npos) {
        return {};
    }
    size_t at = quote;
    while (at > from && text[at - 1] == '\\') {
        --at;
    }
    return {at, quote - at};
}

// Covers the value of one member that begins at its name. @return where to go on.
size_t _cover_member(std::string &text, size_t nameEnd) {
    const Quote name = _find_quote(text, nameEnd);
    if (name.at != nameEnd) {
        return nameEnd;  // the word stands in another place than a name
    }
    const size_t colon = name.at + name.slashes + 1;
    const size_t value = text.find_first_not_of(": \t", colon);
    const Quote begin = _find_quote(text, std::min(value, text.size()));
    if (value == colon || begin.at != value || begin.slashes != name.slashes) {
        return nameEnd;
    }
    const size_t first = begin.at + begin.slashes + 1;
    Quote end = _find_quote(text, first);
    while (end.at != std::string::npos &&
           (end.slashes < begin.slashes || (end.slashes - begin.slashes) % (2 * (begin.slashes + 1)) != 0)) {
        end = _find_quote(text, end.at + end.slashes + 1);  // a quote that the value holds
    }
    const size_t last = end.at == std::string::npos ? text.size() : end.at + end.slashes - begin.slashes;
    text.replace(first, last - first, kCover);
    return first + kCover.size();
}

}  // namespace

Secrets::Secrets(const json &cloudModel) {
    const auto keep = [this](const json &holder, const char *name) {
        const std::string value = holder.value(name, "");
        if (value.size() >= kShortest) {
            values_.push_back(value);
            values_.push_back(to_hex(value));
        }
    };
    for (const json &account : cloudModel.at("accounts")) {
        keep(account, "password");
    }
    keep(cloudModel.at("token"), "deviceToken");
    // The longest first: one may begin with another.
    std::sort(values_.begin(), values_.end(),
              [](const auto &one, const auto &other) { return one.size() > other.size(); });
}

std::string Secrets::cover(std::string text) const {
    for (std::string value : values_) {
        for (size_t depth = 0; depth < kDepth; ++depth) {
            _replace_all(text, value);
            const std::string quoted = dump(value);
            value = quoted.substr(1, quoted.size() - 2);
        }
    }
    for (const SecretMember &member : kSecretMembers) {
        const bool shown = member.kind != "password" && member.kind != "token";
        for (size_t at = 0; !shown && (at = text.find(member.name, at)) != std::string::npos;) {
            at = _cover_member(text, at + member.name.size());
        }
    }
    return text;
}

}  // namespace emulator
