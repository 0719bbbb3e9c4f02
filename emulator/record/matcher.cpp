#include "matcher.h"

#include "deep_json.h"
#include "secret.h"

namespace emulator {
namespace {

bool _contains(const json &object, const std::string &name) {
    return object.find(name) != object.end();
}

}  // namespace

bool Matcher::_bind(const std::string &then, const std::string &now) {
    return bound_.try_emplace(then, now).first->second == now;
}

bool Matcher::_text_fits(const std::string &then, const std::string &now, const std::string &member) {
    if (secret_kind(member) == "device" && !then.empty() && !now.empty()) {
        return _bind(then, now);
    }
    const auto found = find_pseudonym(then);
    if (!found) {
        return then == now;
    }
    const std::string before = then.substr(0, found->begin);
    const std::string after = then.substr(found->begin + found->size);
    return now.size() >= before.size() + after.size() && now.starts_with(before) && now.ends_with(after) &&
           _bind(then.substr(found->begin, found->size),
                 now.substr(before.size(), now.size() - before.size() - after.size()));
}

// Where the two differ, "" nowhere.
std::string Matcher::_differs(const json &then, const json &now, const std::string &path,
                              const std::string &member) {
    const std::string here = path.empty() ? "the body" : path;
    if (then.is_object() && now.is_object()) {
        for (const auto &[name, value] : then.items()) {
            const std::string deeper = path.empty() ? name : path + '.' + name;
            if (!_contains(now, name)) {
                return deeper;
            }
            if (std::string found = _differs(value, now.at(name), deeper, name); !found.empty()) {
                return found;
            }
        }
        for (const auto &[name, value] : now.items()) {
            if (!_contains(then, name)) {
                return path.empty() ? name : path + '.' + name;
            }
        }
        return {};
    }
    if (then.is_array() && now.is_array() && then.size() == now.size()) {
        for (size_t i = 0; i < then.size(); ++i) {
            if (std::string found = _differs(then[i], now[i], here + '[' + std::to_string(i) + ']', member);
                !found.empty()) {
                return found;
            }
        }
        return {};
    }
    if (then.is_string() && !now.is_structured()) {
        const std::string text = now.is_string() ? now.get<std::string>() : dump(now);
        const bool same = _text_fits(then.get<std::string>(), text, member) &&
                          (now.is_string() || find_pseudonym(then.get<std::string>()));
        return same ? std::string() : here;
    }
    return then == now ? std::string() : here;
}

std::optional<Difference> Matcher::compare(int type, const std::string &then, int typeNow,
                                           const std::string &now) {
    const auto difference = [&](std::string where) {
        return Difference{std::move(where), told(type, then), told(typeNow, now)};
    };
    if (type != typeNow) {
        return difference("another message");
    }
    const json before = structure_of(valid_utf8(then));
    const json after = structure_of(valid_utf8(now));
    if (before.is_null() || after.is_null()) {
        return then == now ? std::optional<Difference>() : difference("the body");
    }
    std::string where = _differs(unfolded(before), unfolded(after), "", "");
    return where.empty() ? std::optional<Difference>() : difference(std::move(where));
}

std::string Matcher::translate(const std::string &body) const {
    json parsed = structure_of(body);
    if (parsed.is_null()) {
        return body;
    }
    const bool changed = change_values(parsed, [&](const std::string & /*member*/, json &value) {
        if (!value.is_string()) {
            return false;
        }
        std::string text = value;
        bool replaced = false;
        if (const auto same = bound_.find(text); same != bound_.end()) {
            replaced = same->second != text;
            text = same->second;
        }
        for (size_t at = 0; !replaced && at < text.size();) {
            const auto found = find_pseudonym(std::string_view(text).substr(at));
            if (!found) {
                break;
            }
            const auto known = bound_.find(text.substr(at + found->begin, found->size));
            const std::string now =
                known == bound_.end() ? text.substr(at + found->begin, found->size) : known->second;
            text.replace(at + found->begin, found->size, now);
            at += found->begin + now.size();
        }
        replaced = text != value.get_ref<const std::string &>();
        value = text;
        return replaced;
    });
    return changed ? dump(parsed) : body;
}

}  // namespace emulator
