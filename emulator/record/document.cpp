#include "document.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

namespace emulator {
namespace {

template <class Number>
bool _fits(const json &value) {
    return value.is_number_integer() &&
           (value.is_number_unsigned() ? std::in_range<Number>(value.get<uint64_t>())
                                       : std::in_range<Number>(value.get<int64_t>()));
}

bool _is_hex(const json &value) {
    return value.is_string() && value.get_ref<const std::string &>().size() % 2 == 0 &&
           value.get_ref<const std::string &>().find_first_not_of("0123456789abcdefABCDEF") ==
               std::string::npos;
}

// What a value of the kind is called; "" when this is one.
std::string _fault(const json &value, Kind kind) {
    const bool count = _fits<uint32_t>(value);
    switch (kind) {
        case Kind::kAny:
            return "";
        case Kind::kText:
            return value.is_string() ? "" : "a text";
        case Kind::kHex:
            return _is_hex(value) ? "" : "bytes in hexadecimal";
        case Kind::kFlag:
            return value.is_boolean() ? "" : "true or false";
        case Kind::kInteger:
            return _fits<int32_t>(value) ? "" : "a whole number";
        case Kind::kCount:
            return count ? "" : "a whole number from 0 on";
        case Kind::kCountOrNull:
            return count || value.is_null() ? "" : "a whole number from 0 on or null";
        case Kind::kNumber:
            return count && value != 0 ? "" : "a whole number from 1 on";
        case Kind::kList:
            return value.is_array() ? "" : "a list";
        case Kind::kObject:
            return value.is_object() ? "" : "an object";
    }
    return "";
}

[[noreturn]] void _refuse(std::initializer_list<std::string_view> pieces) {
    std::string text;
    for (const std::string_view piece : pieces) {
        text += piece;
    }
    throw std::invalid_argument(text);
}

}  // namespace

void check_members(const json &object, std::span<const Member> known, const std::string &what) {
    if (!object.is_object()) {
        _refuse({what, " must be an object, not ", dump(object)});
    }
    for (const auto &[name, value] : object.items()) {
        const auto member = std::find_if(known.begin(), known.end(),
                                         [&name = name](const Member &one) { return name == one.name; });
        if (member == known.end()) {
            _refuse({what, " has no member \"", name, "\""});
        }
        const std::string fault = _fault(value, member->kind);
        if (!fault.empty()) {
            _refuse({"\"", name, "\" of ", what, " must be ", fault, ", not ", dump(value)});
        }
    }
    for (const Member &member : known) {
        if (member.needed && !object.contains(member.name)) {
            _refuse({what, " needs the member \"", member.name, "\""});
        }
    }
}

json read_document(const std::string &path) {
    if (path.empty()) {
        return json::object();
    }
    std::ifstream file(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    try {
        return json::parse(text, nullptr, true, true);
    } catch (const json::parse_error &error) {
        const std::string_view fault = error.what();  // "[json.exception.parse_error.101] parse error at ..."
        _refuse({path, ": ", fault.substr(fault.find("] ") + 2)});
    }
}

}  // namespace emulator
