#include "fault.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "document.h"

namespace emulator {
namespace {

// In the words and the actions N stands for the number that is given. Where a share is given ("40%"),
// _action_of puts it into the action as a text.
struct Fault {
    const char *words;
    bool number;
    const char *action;
    const char *effect;
};

constexpr std::array kFaults{
    Fault{"answer N", true, R"({"on":"request","nth":1,"do":{"cloud_error":N}})",
          "the cloud's next answer is error N"},
    Fault{"refuse N", true, R"({"on":"request","nth":1,"do":{"refuse":N}})",
          "the broker refuses the next request with code N"},
    Fault{"silence", false, R"({"on":"request","nth":1,"do":{"silence":true}})",
          "the next request gets no reply"},
    Fault{"delay N", true, R"({"on":"request","nth":1,"do":{"delay_ms":N}})",
          "the next reply comes N milliseconds later"},
    Fault{"cut N", true, R"({"on":"request","nth":1,"do":{"close_after":N}})",
          "the connection closes after N bytes of the next reply"},
    Fault{"full broker", false, R"({"on":"accept","nth":1,"do":{"full":true}})",
          "the broker has no room for the next connection"},
    Fault{"broker restart", false, R"({"broker":"restart"})",
          "the broker restarts: connections and requests are lost"},
    Fault{"broker stop", false, R"({"broker":"stop"})", "the broker ends"},
    Fault{"broker start", false, R"({"broker":"start"})", "the broker begins"},
    Fault{"link down", false, R"({"link":1})", "no answer of the cloud comes in"},
    Fault{"link up", false, R"({"link":2})", "answers come in again"},
    Fault{"link N", true, R"({"link":N})", "the link's status is N"},
    Fault{"mode N", true, R"({"logic":N})", "the broker's mode is N (0 no account, 1 account)"},
    Fault{"download cut", false, R"({"download":"cut"})", "what is being fetched now is cut off"},
    Fault{"download cut N", true,
          R"({"method":"GET","nth":1,"do":{"drop_after":N,"trickle":{"bytes":20000,"ms":20}}})",
          "the next download is cut off after N bytes, or N % of the image"},
    Fault{"download stall", false, R"({"download":"stall"})", "the image server sends nothing more"},
    Fault{"download stall N", true,
          R"({"method":"GET","nth":1,"do":{"stall_after":N,"trickle":{"bytes":20000,"ms":20}}})",
          "the next download stalls after N bytes, or N % of the image"},
    Fault{"download go", false, R"({"download":"go"})", "the image server goes on"},
    Fault{"download length N", true, R"({"method":"GET","nth":1,"do":{"length":N}})",
          "the next download is told to be N bytes long"},
    Fault{"download status N", true, R"({"method":"GET","nth":1,"do":{"status":N}})",
          "the next download gets status N"},
    Fault{"full tmp", false, R"({"tmp_free":0})", "/tmp takes nothing more"},
    Fault{"full tmp N", true, R"({"tmp_free":N})", "/tmp takes N bytes more"},
    Fault{"free tmp", false, R"({"tmp_free":null})", "/tmp takes as much as ever"},
    Fault{"device restart", false, R"({"device":"restart"})", "the device restarts"},
    Fault{"clear", false, R"({"clear":true})", "what was injected holds no longer"},
};

constexpr std::array kLittleWords{"the", "a",  "an",   "is",    "of",   "with",  "after",
                                  "at",  "to", "by",   "in",    "no",   "bytes", "next",
                                  "now", "ms", "code", "error", "then", "server"};
constexpr std::array<std::array<const char *, 2>, 12> kSameWords{{{"answers", "answer"},
                                                                  {"restarts", "restart"},
                                                                  {"stops", "stop"},
                                                                  {"starts", "start"},
                                                                  {"stalls", "stall"},
                                                                  {"drops", "cut"},
                                                                  {"drop", "cut"},
                                                                  {"refuses", "refuse"},
                                                                  {"image", "download"},
                                                                  {"/tmp", "tmp"},
                                                                  {"extender", "device"},
                                                                  {"lies", "length"}}};

std::string _without(std::string text, const char *signs) {
    text.erase(
        std::remove_if(text.begin(), text.end(),
                       [&](char c) { return std::string_view(signs).find(c) != std::string_view::npos; }),
        text.end());
    return text;
}

bool _is_number(const std::string &word) {
    const std::string digits = word.starts_with('-') ? word.substr(1) : word;
    return !digits.empty() && digits.size() < 10 &&
           std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

struct Words {
    std::vector<std::string> words;  // sorted; "N" for a number
    std::string number;
    bool percent = false;
};

Words _split(const std::string &text) {
    Words result;
    std::istringstream stream(text);
    for (std::string word; stream >> word;) {
        std::transform(word.begin(), word.end(), word.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        result.percent = result.percent || word.ends_with('%');
        word = _without(word, ",.%\"");
        const auto same = std::find_if(kSameWords.begin(), kSameWords.end(),
                                       [&](const auto &pair) { return word == pair[0]; });
        word = same != kSameWords.end() ? (*same)[1] : word;
        if (_is_number(word)) {
            result.number = word;
            word = "N";
        }
        if (!word.empty() &&
            std::find(kLittleWords.begin(), kLittleWords.end(), word) == kLittleWords.end()) {
            result.words.push_back(word == "n" ? "N" : word);
        }
    }
    std::sort(result.words.begin(), result.words.end());
    return result;
}

json _action_of(const Fault &fault, const Words &given) {
    std::string text = fault.action;
    const size_t at = text.find(":N");
    if (at == std::string::npos) {
        return json::parse(text);
    }
    text.replace(at + 1, 1, given.number);
    json action = json::parse(text);
    if (given.percent) {
        json &effect = action.at("do");
        for (const char *name : {"drop_after", "stall_after"}) {
            if (effect.contains(name)) {
                effect[name] = given.number + "%";
            }
        }
    }
    return action;
}

constexpr std::array kActionMembers{
    Member{"link", Kind::kInteger},  Member{"logic", Kind::kInteger},        Member{"broker", Kind::kText},
    Member{"download", Kind::kText}, Member{"tmp_free", Kind::kCountOrNull}, Member{"device", Kind::kText},
    Member{"clear", Kind::kFlag},
};

}  // namespace

json parse_fault(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t\n");
    if (first != std::string::npos && text[first] == '{') {
        json action = json::parse(text, nullptr, false, true);
        if (action.is_discarded()) {
            throw std::invalid_argument("not JSON: " + text);
        }
        check_action(action);
        return action;
    }
    const Words given = _split(text);
    for (const Fault &fault : kFaults) {
        if (_split(fault.words).words == given.words &&
            (!given.percent || std::string_view(fault.effect).find('%') != std::string_view::npos)) {
            return _action_of(fault, given);
        }
    }
    throw std::invalid_argument("no fault is called \"" + text + "\". There are:\n" + fault_help());
}

std::string fault_help() {
    std::string text;
    for (const Fault &fault : kFaults) {
        std::string words = fault.words;
        words.resize(20, ' ');
        text += "  " + words + fault.effect + "\n";
    }
    return text +
           "  {\"on\": ...}         a rule of the broker, as in a scenario\n"
           "  {\"do\": ...}         a rule of the image server\n";
}

void check_action(const json &action) {
    if (action.is_object() && (action.contains("on") || action.contains("do"))) {
        return;
    }
    check_members(action, kActionMembers, "the fault");
    if (action.size() != 1) {
        throw std::invalid_argument("a fault must do one thing, not " + dump(action));
    }
    for (const auto &[name, values] : {std::pair{"broker", std::vector{"restart", "stop", "start"}},
                                       {"download", {"cut", "stall", "go"}},
                                       {"device", {"restart"}}}) {
        const auto found = action.find(name);
        if (found != action.end() && std::find(values.begin(), values.end(), *found) == values.end()) {
            throw std::invalid_argument(std::string("\"") + name + "\" of the fault cannot be " +
                                        dump(*found));
        }
    }
}

}  // namespace emulator
