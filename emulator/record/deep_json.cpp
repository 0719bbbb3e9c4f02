#include "deep_json.h"

namespace emulator {

json structure_of(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos || (text[first] != '{' && text[first] != '[')) {
        return nullptr;
    }
    json parsed = json::parse(text, nullptr, false);
    return parsed.is_structured() ? parsed : json();
}

json unfolded(const json &value) {
    if (value.is_string()) {
        const json inner = structure_of(value.get_ref<const std::string &>());
        return inner.is_null() ? value : unfolded(inner);
    }
    json result = value;
    if (result.is_structured()) {
        for (json &each : result) {
            each = unfolded(each);
        }
    }
    return result;
}

bool change_values(json &value, const ChangeValue &change, const std::string &member) {
    bool changed = false;
    if (value.is_object()) {
        for (auto each = value.begin(); each != value.end(); ++each) {
            changed = change_values(each.value(), change, each.key()) || changed;
        }
    } else if (value.is_array()) {
        for (json &each : value) {
            changed = change_values(each, change, member) || changed;
        }
    } else if (json inner = value.is_string() ? structure_of(value.get_ref<const std::string &>()) : json();
               !inner.is_null()) {
        changed = change_values(inner, change, member);
        if (changed) {
            value = dump(inner);
        }
    } else if (value.is_string() || value.is_number()) {
        changed = change(member, value);
    }
    return changed;
}

}  // namespace emulator
