#include "mask.h"

#include <algorithm>
#include <array>
#include <regex>
#include <string_view>

#include "deep_json.h"
#include "secret.h"
#include "wire.h"

namespace emulator {
namespace {

constexpr size_t kShortest = 4;  // a shorter secret is masked where it stands alone

// Members whose texts tell nothing of whose device it is.
constexpr std::array<std::string_view, 19> kHarmless{
    "kind",    "from",       "name",  "method", "event",           "serviceIds",    "fwVer",
    "version", "socket",     "range", "msg",    "devFwCurrentVer", "fwReleaseDate", "kcspVer",
    "reason",  "error_code", "role",  "faults", "expiresIn"};

bool _is_harmless(const std::string &member) {
    return std::find(kHarmless.begin(), kHarmless.end(), member) != kHarmless.end();
}

const std::regex &_address() {
    static const std::regex pattern("[A-Za-z0-9._%+-]+@[A-Za-z0-9-]+(\\.[A-Za-z0-9-]+)+");
    return pattern;
}

void _replace_all(std::string &text, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
}

}  // namespace

Mask::Mask(const std::vector<json> &records) {
    for (json record : records) {
        change_values(record, [this](const std::string &member, json &value) {
            const std::string text = value.is_string() ? value.get<std::string>() : dump(value);
            const std::string_view kind = secret_kind(member);
            if (!kind.empty()) {
                _learn(kind, text);
            }
            for (std::sregex_iterator each(text.begin(), text.end(), _address());
                 each != std::sregex_iterator(); ++each) {
                _learn("account", each->str());
            }
            return false;
        });
    }
    for (const auto &[secret, stands_for] : pseudonyms_) {
        longest_first_.push_back(secret);
    }
    std::stable_sort(
        longest_first_.begin(), longest_first_.end(),
        [](const std::string &left, const std::string &right) { return left.size() > right.size(); });
}

void Mask::_learn(std::string_view kind, const std::string &secret) {
    if (!secret.empty() && !find_pseudonym(secret) && !pseudonyms_.contains(secret)) {
        size_t &count = counts_[std::string(kind)];
        pseudonyms_[secret] = pseudonym(kind, ++count);
    }
}

std::string Mask::_without_secrets(std::string text) const {
    if (const auto whole = pseudonyms_.find(text); whole != pseudonyms_.end()) {
        return whole->second;
    }
    for (const std::string &secret : longest_first_) {
        if (secret.size() >= kShortest) {
            _replace_all(text, secret, pseudonyms_.at(secret));
        }
    }
    return text;
}

bool Mask::_mask_value(const std::string &member, json &value) {
    const std::string_view kind = secret_kind(member);
    if (!value.is_string()) {
        const auto known = kind.empty() ? pseudonyms_.end() : pseudonyms_.find(dump(value));
        if (known != pseudonyms_.end()) {
            value = known->second;
        }
        return known != pseudonyms_.end();
    }
    const std::string before = value;
    value = _without_secrets(before);
    if (value == before && !before.empty() && kind.empty() && !_is_harmless(member) &&
        !find_pseudonym(before)) {
        ++kept_[member];
    }
    return value != before;
}

// The words of a command: what follows the first two may be anything, encrypted or encoded as well.
void Mask::_mask_words(json &words) {
    for (size_t i = 0; words.is_array() && i < words.size(); ++i) {
        const std::string word = words[i].is_string() ? words[i].get<std::string>() : std::string();
        const bool number = word.find_first_not_of("0123456789") == std::string::npos;
        if (i > 1 && !number && !find_pseudonym(word)) {
            words[i] = "masked-argument-" + std::to_string(i - 1);
        }
    }
}

std::string Mask::line(json record) {
    const std::string kind = record.value("kind", "");
    if (record.contains("bytes")) {
        record["bytes"] = to_hex(std::string(record.value("bytes", "").size() / 2, 'X'));
        ++blanked_;
    }
    const std::string body = record.value("body", "");
    if (!body.empty() && (record.contains("body_hex") || structure_of(body).is_null())) {
        record["body"] = std::string(body.size(), 'x');
        record.erase("body_hex");
        ++blanked_;
    }
    if ((kind == "run" || kind == "start") && record.contains("argv")) {
        _mask_words(record["argv"]);
    } else if (kind == "script" && record.contains("arguments")) {
        record["arguments"].insert(record["arguments"].begin(), 2, "");
        _mask_words(record["arguments"]);
        record["arguments"].erase(0);
        record["arguments"].erase(0);
    }
    const std::string path = record.value("path", "");
    if (const size_t query = path.find('?'); query != std::string::npos) {
        record["path"] = path.substr(0, query) + "?masked-text-1";
    }
    change_values(record,
                  [this](const std::string &member, json &value) { return _mask_value(member, value); });
    // And where no value was looked at: in the name of a member.
    return _without_secrets(dump(record));
}

std::string Mask::report() const {
    std::string text = "masked:";
    for (const auto &[kind, count] : counts_) {
        text += ' ' + std::to_string(count) + " of " + kind + ',';
    }
    text.back() = counts_.empty() ? ' ' : ';';
    text += " bytes that are no message taken out: " + std::to_string(blanked_) + '\n';
    if (kept_.empty()) {
        return text;
    }
    text += "kept as they are, because nothing here knows what they hold:";
    for (const auto &[member, count] : kept_) {
        text += " \"" + member + "\" (" + std::to_string(count) + "),";
    }
    text.back() = '\n';
    return text;
}

}  // namespace emulator
