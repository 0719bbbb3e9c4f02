// extender explain: what a printed number or a console line means.
#include <charconv>
#include <iostream>
#include <memory>
#include <set>
#include <string>

#include "commands.h"
#include "meanings.h"

namespace emulator {
namespace {

constexpr int kUnknown = 1;

void _print(std::string_view meaning, std::string_view step, std::string_view lookAt) {
    std::cout << "  meaning: " << meaning << "\n  step:    " << step << "\n  look at: " << lookAt << '\n';
}

int _explain_code(int code) {
    bool known = false;
    for (const CodeMeaning &row : code_meanings()) {
        if (row.code == code) {
            std::cout << code << " (" << place_text(row.place) << ")\n";
            _print(row.meaning, row.step, row.look_at);
            known = true;
        }
    }
    if (!known) {
        std::cout << code
                  << " is no code of the device: the cloud's or the broker's own, handed on as it is\n";
    }
    return known ? 0 : kUnknown;
}

// A line without a row of its own: which steps it may come from.
int _explain_printed(const std::string &line) {
    std::string_view text;  // the longest fits best
    for (const PrintedLine &each : printed_lines()) {
        text = each.text.size() > text.size() && line_fits(line, each.text) ? each.text : text;
    }
    if (text.empty()) {
        std::cout << "no line of the device is like this\n";
        return kUnknown;
    }
    std::cout << text << '\n';
    std::set<std::string_view> steps;
    for (const PrintedLine &each : printed_lines()) {
        if (each.text == text && steps.insert(step_of(each.source)).second) {
            std::cout << "  step:    " << step_of(each.source) << '\n';
        }
    }
    return 0;
}

int _explain_line(const std::string &line) {
    for (const LineMeaning &row : line_meanings()) {
        if (line_fits(line, row.text)) {
            std::cout << row.text << '\n';
            _print(row.meaning, row.step, row.look_at);
            return 0;
        }
    }
    for (const ModuleMeaning &row : module_meanings()) {
        if (line.find(row.name) != std::string::npos) {
            std::cout << row.name << "\n  step:    " << row.step << '\n';
            return 0;
        }
    }
    return _explain_printed(line);
}

void _row(std::string_view first, std::string_view second, std::string_view third, std::string_view fourth) {
    std::cout << "| " << first << " | " << second << " | " << third << " | " << fourth << " |\n";
}

// The tables of docs/codes.md.
int _print_tables() {
    std::cout << "| code | seen as | meaning | step; look at |\n|---|---|---|---|\n";
    for (const CodeMeaning &row : code_meanings()) {
        _row(std::to_string(row.code), place_text(row.place), row.meaning,
             std::string(row.step) + "; " + std::string(row.look_at));
    }
    std::cout << "\n| console line | meaning | step | look at |\n|---|---|---|---|\n";
    for (const LineMeaning &row : line_meanings()) {
        _row("`" + std::string(row.text) + "`", row.meaning, row.step, row.look_at);
    }
    std::cout << "\n| lines of | step |\n|---|---|\n";
    for (const ModuleMeaning &row : module_meanings()) {
        std::cout << "| `" << row.name << "` | " << row.step << " |\n";
    }
    return 0;
}

int _explain(const std::string &asked) {
    int code = 0;
    const char *const end = asked.data() + asked.size();
    const auto parsed = std::from_chars(asked.data(), end, code);
    return parsed.ec == std::errc{} && parsed.ptr == end ? _explain_code(code) : _explain_line(asked);
}

}  // namespace

void add_explain(CLI::App &app, int &status) {
    struct Asked {
        std::string text;
        bool tables = false;
    };
    const auto asked = std::make_shared<Asked>();
    CLI::App *const command = app.add_subcommand("explain", "What a printed number or a console line means.");
    CLI::Option *const tables =
        command->add_flag("--tables", asked->tables, "Print all of it, as docs/codes.md has it");
    command->add_option("text", asked->text, "The number or line")->excludes(tables);
    command->callback([asked, &status] {
        if (!asked->tables && asked->text.empty()) {
            throw CLI::RequiredError("A number or a line");
        }
        status = asked->tables ? _print_tables() : _explain(asked->text);
    });
}

}  // namespace emulator
