#include "demo.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "device.h"

namespace emulator {
namespace {

constexpr size_t kLineWidth = 110;
constexpr size_t kWordWidth = 40;

// One command typed on the device, and what must come of it.
struct Step {
    std::string title;              // of a chapter; empty: the chapter goes on
    std::vector<std::string> argv;  // words "rsa:TEXT" and "b64:TEXT" stand for TEXT encrypted or encoded
    std::string printed;            // the exact output; "~TEXT": an output that holds TEXT
    std::vector<json> happened;     // each: members of a journal record that must be among the step's
    std::function<void(Device &)> before;
};

const std::vector<Step> &_steps() {
    static const std::string owner = "alice@example.com";
    static const std::string user = "bob@example.com";
    static const json dropbreload{{"kind", "script"}, {"name", "dropbreload"}};
    const auto message = [](const char *name) { return json{{"kind", "message"}, {"name", name}}; };
    const auto event = [](int number) { return json{{"kind", "event"}, {"event", number}}; };
    static const std::vector<Step> steps{
        {"A new device: nobody owns it.", {"cloud_msg", "getBindStatus"}, "0\n", {}, {}},
        {"The owner binds it. The web interface encrypts the password with the device's key.",
         {"cloud_msg", "bind", owner, "rsa:Secret-1"},
         "0\n",
         {message("accept"), message("logic"), message("submitNoAccount"), message("poll"), message("answer"),
          event(10), dropbreload},
         {}},
        {"", {"cloud_msg", "getBindStatus"}, "1\n", {}, {}},
        {"", {"cloud_store", "get", "account"}, "~" + owner, {}, {}},
        {"Somebody else tries, and the cloud refuses: the device has an owner.",
         {"cloud_msg", "bind", "carol@example.com", "rsa:Secret-3"},
         std::to_string(kCloudBoundToOther) + "\n",
         {message("submit")},
         {}},
        {"A second user logs in. Only an owner's login may change the stored account.",
         {"cloud_msg", "login", user, "rsa:Secret-2"},
         "0\n",
         {message("submit")},
         {}},
        {"", {"cloud_store", "get", "account"}, "~" + owner, {}, {}},
        {"", {"cat", "/tmp/cloud.login"}, "1\n", {}, {}},
        {"The device gets a name in the cloud.", {"cloud_msg", "alias", "b64:Upstairs"}, "0\n", {}, {}},
        {"A token, with its address. A script will remove it when it expires.",
         {"cloud_msg", "getDevToken"},
         "0\n",
         {{{"kind", "script"}, {"name", "deleteToken.sh"}, {"arguments", {"7200"}}}},
         {}},
        {"", {"cat", "/tmp/cloud.token"}, "7f3a90c2d6e84b15\nhttps://eweb.example.com/device\n", {}, {}},
        {"The management daemon passes a request through; the answer is cached.",
         {"cloud_msg", "passthrough", "getWeather", R"(b64:{"unit":"celsius"})"},
         "0\n",
         {message("submit")},
         {}},
        {"", {"cat", "/tmp/cloud_data_cache/getWeather"}, "~Exampleville", {}, {}},
        {"The owner removes the second user.", {"cloud_msg", "rmuser", owner, user}, "0\n", {}, {}},
        {"Is the cloud there? Any answer of it means yes.",
         {"cloud_msg", "online"},
         "0\n",
         {message("answer")},
         {}},
        {"Wireless clients are kicked off by the management daemon.",
         {"cloud_msg", "kickoff"},
         "0\n",
         {{{"kind", "datagram"}, {"length", 120}, {"faults", json::array()}},
          {{"kind", "datagram"}, {"length", 128}, {"faults", json::array()}},
          {{"kind", "datagram"}, {"length", 160}, {"faults", json::array()}}},
         {}},
        {"Factory reset with the cloud's link cut (takes five seconds): a report tells that an unbind is "
         "due.",
         {"cloud_msg", "factory"},
         "0\n",
         {message("submit")},
         [](Device &device) { device.broker().set_link(1); }},
        {"", {"cat", "/tmp/factory.part"}, "~\"need_unbind\":\t1", {}, {}},
        {"", {"cat", "/tmp/cloud.error"}, "-3002\n", {}, {}},
        {"The same with the link up: the device unbinds itself.",
         {"cloud_msg", "factory"},
         "0\n",
         {event(11), dropbreload},
         [](Device &device) { device.broker().set_link(2); }},
        {"", {"cloud_msg", "getBindStatus"}, "0\n", {}, {}},
        {"Bound once more,",
         {"cloud_msg", "bind", owner, "rsa:Secret-1"},
         "0\n",
         {event(10), dropbreload},
         {}},
        {"and unbound.", {"cloud_msg", "unbind"}, "0\n", {message("submit"), event(11), dropbreload}, {}},
        {"", {"cloud_msg", "getBindStatus"}, "0\n", {}, {}},
    };
    return steps;
}

std::string _base64(std::string_view text) {
    constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string result;
    for (; !text.empty(); text.remove_prefix(std::min<size_t>(3, text.size()))) {
        unsigned group = 0;
        for (size_t i = 0; i < 3; ++i) {
            group = group << 8U | (i < text.size() ? static_cast<unsigned char>(text[i]) : 0U);
        }
        for (size_t i = 0; i < 4; ++i) {
            result += i <= text.size() ? kLetters[group >> (18 - 6 * i) & 63U] : '=';
        }
    }
    return result;
}

std::string _shortened(const std::string &text, size_t width) {
    return text.size() <= width ? text : text.substr(0, width) + "... (" + std::to_string(text.size()) + ")";
}

// What a message carries: the text inside, where it only wraps one.
std::string _content(const std::string &body) {
    const json parsed = json::parse(body, nullptr, false);
    for (const char *name : {"request", "response"}) {
        if (parsed.is_object() && parsed.contains(name) && parsed.at(name).is_string()) {
            return parsed.at(name);
        }
    }
    return body;
}

// A line for a record, or "" for one that is no news.
std::string _line(const json &record) {
    const std::string &kind = record.at("kind");
    const auto text = [&](const char *name) { return record.at(name).get<std::string>(); };
    if (kind == "message") {
        return (record.at("from") == "client" ? "--> " : "<-- ") + text("name") + " " +
               _content(text("body"));
    }
    if (kind == "event") {
        return "the broker is notified of event " + dump(record.at("event"));
    }
    if (kind == "script") {
        return "script " + text("name") + " " + dump(record.at("arguments"));
    }
    if (kind == "datagram") {
        return "kmpd gets " + dump(record.at("size")) + " bytes, payload " + dump(record.at("payload"));
    }
    return kind == "console" && !text("text").empty() ? "console: " + text("text") : std::string();
}

void _show_records(const std::vector<json> &records) {
    std::vector<std::string> last;  // the last two lines: a poll and its answer repeat as a pair
    for (const json &record : records) {
        const std::string line = _line(record);
        const bool again = std::find(last.begin(), last.end(), line) != last.end();
        if (!line.empty() && !again) {
            std::cout << "      " << _shortened(line, kLineWidth) << '\n';
            last.push_back(line);
            last.erase(last.begin(), last.end() - std::min<std::ptrdiff_t>(2, std::ssize(last)));
        }
    }
}

std::string _indented(const std::string &text) {
    std::string result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        result += "   " + _shortened(line, kLineWidth) + '\n';
    }
    return result;
}

// What is not as expected, in words; empty when all is.
std::string _fault(const Step &step, const Run &run, const std::vector<json> &records) {
    const bool part = step.printed.starts_with('~');
    if (part ? run.out.find(step.printed.substr(1)) == std::string::npos : run.out != step.printed) {
        return "expected the output " + dump(step.printed) + ", got " + dump(run.out) + " " + run.err;
    }
    if (run.status != 0) {
        return "exit status " + std::to_string(run.status) + ", signal " + std::to_string(run.signal);
    }
    for (const json &wanted : step.happened) {
        if (std::none_of(records.begin(), records.end(), has(wanted))) {
            return "did not happen: " + dump(wanted);
        }
    }
    return {};
}

bool _play(Device &device, const Step &step) {
    if (!step.title.empty()) {
        std::cout << "\n== " << step.title << '\n';
    }
    if (step.before) {
        step.before(device);
    }
    std::vector<std::string> argv;
    std::cout << "   $";
    for (const std::string &word : step.argv) {
        const std::string text = word.substr(std::min<size_t>(4, word.size()));
        argv.push_back(word.starts_with("rsa:")   ? device.encrypt(text)
                       : word.starts_with("b64:") ? _base64(text)
                                                  : word);
        std::cout << ' ' << _shortened(argv.back(), kWordWidth);
    }
    std::cout << std::endl;
    const size_t before = device.journal().all().size();
    const Run run = device.run(argv);
    std::vector<json> records = device.journal().all();
    records.erase(records.begin(), records.begin() + static_cast<std::ptrdiff_t>(before));
    std::cout << _indented(run.out);
    _show_records(records);
    const std::string fault = _fault(step, run, records);
    if (!fault.empty()) {
        std::cout << "   !! " << fault << '\n';
    }
    std::cout.flush();
    return fault.empty();
}

}  // namespace

int play_demo(std::FILE *sink) {
    std::cout << "An emulated extender. $: typed on it. -->, <--: between cloud_msg and the broker,\n"
                 "a poll that is repeated shown once.\n";
    Device device({{"rules", {{{"on", "request"}, {"method", "bindDevice"}, {"do", {{"pending", 1}}}}}}}, {},
                  sink);
    const auto failed = std::count_if(_steps().begin(), _steps().end(),
                                      [&](const Step &step) { return !_play(device, step); });
    std::cout << "\n"
              << (failed == 0 ? "All as expected." : std::to_string(failed) + " steps were not as expected.")
              << '\n';
    return failed == 0 ? 0 : 1;
}

}  // namespace emulator
