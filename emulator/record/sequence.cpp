#include "sequence.h"

#include <algorithm>
#include <initializer_list>
#include <utility>

#include "wire.h"

namespace emulator {
namespace {

constexpr size_t kLongestText = 200;
constexpr size_t kRequestsKept = 1000;

using Style = Arrow::Style;

// Members of a journal that a stranger may have written: absent or of another kind counts as empty.
std::string _text(const json &object, const char *name) {
    return object.is_object() && object.contains(name) && object.at(name).is_string()
               ? object.at(name).get<std::string>()
               : std::string();
}

std::string _hex_text(const json &object, const char *name) {
    const std::string text = _text(object, name);
    return text.find_first_not_of("0123456789ABCDEFabcdef") == std::string::npos ? text : std::string();
}

int _number(const json &object, const char *name, int otherwise = 0) {
    return object.is_object() && object.contains(name) && object.at(name).is_number_integer()
               ? object.at(name).get<int>()
               : otherwise;
}

json _member(const json &object, const char *name) {
    return object.is_object() && object.contains(name) ? object.at(name) : json();
}

std::string _words(const json &list) {
    std::string text;
    for (const json &word : list.is_array() ? list : json::array()) {
        text += (text.empty() ? "" : " ") + (word.is_string() ? word.get<std::string>() : dump(word));
    }
    return text;
}

// "errorcode 0, id 1": the numbers of a body.
std::string _numbers(const json &body) {
    std::string text;
    for (const char *name : {"id", "errorcode", "status", "result", "event", "error_code"}) {
        if (const json value = _member(body, name); value.is_number()) {
            text += (text.empty() ? "" : ", ") + std::string(name) + " " + dump(value);
        }
    }
    return text;
}

// What the cloud says: "error_code -20202 Password incorrect".
std::string _answer(const json &answer) {
    const std::string message = _text(answer, "msg");
    return _numbers(answer) + (message.empty() ? "" : " " + message);
}

Arrow _note(std::string label, bool fault = false) {
    return {Lane::kProgram, Lane::kConsole, Style::kNote, printable(label), fault};
}

Arrow _arrow(Lane from, Lane to, const std::string &label, bool fault = false, Style style = Style::kPlain) {
    return {from, to, style, printable(label), fault};
}

std::vector<Arrow> _http(const json &record) {
    const std::string range = _text(record, "range");
    const int status = _number(record, "status");
    return {
        _arrow(Lane::kProgram, Lane::kImages,
               _text(record, "method") + " " + _text(record, "path") + (range.empty() ? "" : " " + range)),
        _arrow(Lane::kImages, Lane::kProgram,
               std::to_string(status) + ", " + dump(_member(record, "sent")) + " bytes", status >= 300)};
}

std::string _ended(const json &record) {
    const int signal = _number(record, "signal");
    std::string text = signal != 0 ? "ended by signal " + std::to_string(signal)
                                   : "ended with status " + dump(_member(record, "status"));
    const std::string printed = _text(record, "printed");
    return _words(_member(record, "argv")).substr(0, kLongestText) + ": " + text +
           (printed.empty() ? "" : ", printed " + printed);
}

}  // namespace

std::string printable(const std::string &text) {
    std::string result;
    const std::string valid = valid_utf8(text);
    for (size_t i = 0; i < valid.size(); ++i) {
        const auto byte = static_cast<unsigned char>(valid[i]);
        // Also those of U+0080 to U+009F, which some terminals follow.
        const bool late =
            byte == 0xC2 && i + 1 < valid.size() && static_cast<unsigned char>(valid[i + 1]) < 0xA0;
        i += late ? 1 : 0;
        result += byte < 0x20 || byte == 0x7F || late ? ' ' : valid[i];
    }
    result.erase(result.find_last_not_of(' ') + 1);
    return result;
}

json unfolded(const std::string &text) {
    json value = json::parse(text, nullptr, false);
    if (!value.is_object() && !value.is_array()) {
        return text;
    }
    for (json &member : value) {
        if (member.is_string()) {
            member = unfolded(member.get<std::string>());
        }
    }
    return value;
}

std::string wire_bytes(const json &record) {
    if (const std::string bytes = _hex_text(record, "bytes"); !bytes.empty()) {
        return from_hex(bytes);
    }
    if (_text(record, "kind") != "message") {
        return {};
    }
    const std::string hex = _hex_text(record, "body_hex");
    const std::string body = hex.empty() ? _text(record, "body") : from_hex(hex);
    return encode_frame(kMagic, _number(record, "type"), body.size(), body);
}

std::string Sequence::_name(const json &record, const json &body) {
    const int type = _number(record, "type");
    const int connection = _number(record, "connection");
    const std::string request = _text(_member(body, "request"), "method");
    std::string text = _text(record, "name");
    if (type == kSubmit || type == kSubmitNoAccount) {
        last_submitted_[connection] = request;
    }
    if (type == kSubmit + 1 || type == kSubmitNoAccount + 1) {
        methods_[_number(body, "id")] = std::exchange(last_submitted_[connection], {});
        if (methods_.size() > kRequestsKept) {
            methods_.erase(methods_.begin());
        }
    }
    const auto method = methods_.find(_number(body, "id", -1));
    for (const std::string &part :
         {request, method != methods_.end() ? method->second : std::string(), _numbers(body)}) {
        text += part.empty() ? "" : " " + part;
    }
    return text;
}

std::vector<Arrow> Sequence::_message(const json &record) {
    const bool toBroker = _text(record, "from") == "client";
    const int type = _number(record, "type");
    const bool lost = _text(record, "kind") == "no_reply";
    const json body = unfolded(_text(record, "body"));
    const json scripted = _member(record, "scripted");
    std::string label = _name(record, body);
    label += scripted.is_null() ? "" : " [scripted: " + dump(scripted) + "]";
    std::vector<Arrow> arrows;
    if (const json answer = _member(body, "response"); !toBroker && answer.is_object()) {
        const bool error = _number(answer, "error_code") != 0;
        arrows.push_back(_arrow(Lane::kCloud, Lane::kBroker, _answer(answer), error, Style::kImplied));
    }
    if (type == kCloudRequest && !toBroker) {
        arrows.push_back(_arrow(Lane::kCloud, Lane::kBroker, "pushes a request", false, Style::kImplied));
    }
    arrows.push_back(_arrow(toBroker ? Lane::kProgram : Lane::kBroker,
                            toBroker ? Lane::kBroker : Lane::kProgram, label, lost || !scripted.is_null(),
                            lost ? Style::kLost : Style::kPlain));
    const std::string method = _text(_member(body, "request"), "method");
    if ((type == kSubmit || type == kSubmitNoAccount || type == kCloudResponse) && toBroker) {
        arrows.push_back(_arrow(Lane::kBroker, Lane::kCloud, type == kCloudResponse ? "response" : method,
                                false, Style::kImplied));
    }
    return arrows;
}

std::vector<Arrow> Sequence::arrows(const json &record) {
    const std::string kind = _text(record, "kind");
    const std::string connection = "connection " + dump(_member(record, "connection"));
    if (kind == "message" || kind == "no_reply") {
        return _message(record);
    }
    if (kind == "connect" || kind == "close") {
        return {
            _arrow(Lane::kProgram, Lane::kBroker, connection + (kind == "connect" ? " opens" : " closes"))};
    }
    if (kind == "bad_message") {
        return {_arrow(Lane::kProgram, Lane::kBroker, "no message: " + _text(record, "bytes"), true)};
    }
    if (kind == "console") {
        return {_arrow(Lane::kProgram, Lane::kConsole, _text(record, "text"))};
    }
    if (kind == "script") {
        return {_arrow(Lane::kProgram, Lane::kScripts,
                       _text(record, "name") + " " + _words(_member(record, "arguments")))};
    }
    if (kind == "datagram") {
        const std::string faults = _words(_member(record, "faults"));
        return {_arrow(Lane::kProgram, Lane::kDaemon,
                       dump(_member(record, "size")) + " bytes, payload " + dump(_member(record, "payload")) +
                           (faults.empty() ? "" : " [" + faults + "]"),
                       !faults.empty())};
    }
    if (kind == "http") {
        return _http(record);
    }
    if (kind == "start") {
        return {_note("$ " + _words(_member(record, "argv")))};
    }
    if (kind == "run") {
        return {_note(_ended(record))};
    }
    if (kind == "restart") {
        return {_note("the device restarts with " + _text(record, "version"))};
    }
    if (kind == "injected") {
        const std::string words = _text(record, "text");
        return {_note("injected: " + (words.empty() ? dump(_member(record, "rule")) : words), true)};
    }
    if (kind == "tap") {
        return {_note("the tap has taken " + _text(record, "socket"))};
    }
    if (kind == "lost") {
        return {_note(dump(_member(record, "records")) + " records found no room in the journal", true)};
    }
    if (kind == "scenario_error") {
        return {_note("the scenario cannot be followed: " + _text(record, "text"), true)};
    }
    if (kind == "event") {
        return {};
    }
    return {_note(kind + " " + dump(record))};  // of a later version, or of another who writes journals
}

}  // namespace emulator
