#include "demo_step.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <sstream>

namespace emulator {
namespace {

constexpr size_t kLineWidth = 110;
constexpr size_t kWordWidth = 40;

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
    if (kind == "restart") {
        return "the device restarts with " + text("version");
    }
    // Where a message comes from is left out, and so is each percent of a download.
    const std::string console = kind == "console" ? text("text") : "";
    const bool news = !console.empty() && console.find("][src/") == std::string::npos &&
                      !console.starts_with("downloading: ");
    return news ? "console: " + console : std::string();
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

}  // namespace

bool play_step(Device &device, const Step &step) {
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
    const Run run = step.how ? step.how(device, argv) : device.run(argv);
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

}  // namespace emulator
