#include "demo_step.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <iterator>
#include <sstream>

#include "sequence_text.h"

namespace emulator {
namespace {

constexpr size_t kUsualColumns = 80;
constexpr size_t kWordWidth = 40;  // of a command; less where the line ends
constexpr size_t kLeastWord = 16;
constexpr size_t kTab = 8;

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

// What does not fit is cut; how long it was as it was printed stands behind it.
std::string _shortened(const std::string &text, size_t columns, size_t printed) {
    if (text.size() <= columns) {
        return text;
    }
    const std::string end = "... (" + std::to_string(printed) + ")";
    return text.substr(0, columns > end.size() ? columns - end.size() : 0) + end;
}

// Where a console message comes from is left out, and so is each percent of a download.
bool _is_news(const json &record) {
    if (record.at("kind") == "start" || record.at("kind") == "run") {
        return false;  // shown as it is typed
    }
    const std::string console = record.at("kind") == "console" ? record.at("text") : "";
    return console.find("][src/") == std::string::npos && !console.starts_with("downloading: ");
}

void _show_records(const std::vector<json> &records) {
    TextStyle style = demo_style();
    style.indent = "  ";
    SequenceText text(std::cout, style);
    if (std::any_of(records.begin(), records.end(), _is_news)) {
        text.header();
    }
    for (const json &record : records) {
        if (_is_news(record)) {
            text.add(record);
        }
    }
    text.flush();
}

// Tabs become the blanks that a terminal would show.
std::string _indented(const std::string &text) {
    std::string result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::string shown = "   ";
        for (const char byte : line) {
            shown.append(byte == '\t' ? kTab - shown.size() % kTab : 1, byte == '\t' ? ' ' : byte);
        }
        result += _shortened(shown, demo_style().columns, line.size()) + '\n';
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

TextStyle demo_style() {
    return TextStyle::of(STDOUT_FILENO, kUsualColumns);
}

bool play_step(Device &device, const Step &step) {
    if (!step.title.empty()) {
        std::cout << '\n' << in_lines("== " + step.title, demo_style().columns);
    }
    if (step.before) {
        step.before(device);
    }
    std::vector<std::string> argv;
    std::string line = "   $";
    for (const std::string &word : step.argv) {
        const std::string text = word.substr(std::min<size_t>(4, word.size()));
        argv.push_back(word.starts_with("rsa:")   ? device.encrypt(text)
                       : word.starts_with("b64:") ? _base64(text)
                                                  : word);
        const size_t columns = demo_style().columns;
        const size_t left = columns > line.size() + 1 ? columns - line.size() - 1 : 0;
        line += ' ' + _shortened(argv.back(), std::clamp(left, kLeastWord, kWordWidth), argv.back().size());
    }
    std::cout << line << std::endl;
    const int before = device.journal().last();
    const Run run = step.how ? step.how(device, argv) : device.run(argv);
    const std::vector<json> records = device.journal().after(before);
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
