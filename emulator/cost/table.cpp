#include "table.h"

#include <algorithm>
#include <iomanip>
#include <ostream>
#include <string>

namespace emulator {
namespace {

constexpr int kNameWidth = 44;
constexpr int kFigureWidth = 12;

class Table {
public:
    explicit Table(std::ostream &out) : out_(out) {}

    void head(const std::string &name, const std::string &unit) {
        out_ << '\n';
        _name(name);
        out_ << std::setw(kFigureWidth) << unit << '\n';
    }
    void row(const std::string &name, const json &figure, const std::string &remark = {}) {
        _name("  " + name);
        out_ << std::setw(kFigureWidth) << dump(figure) << (remark.empty() ? "" : "  ") << remark << '\n';
    }
    void rows(const json &figures) {
        for (const auto &[name, figure] : figures.items()) {
            row(name, figure);
        }
    }
    void spread(const std::string &name, const json &spread, int digits) {
        _name("  " + name);
        out_ << std::fixed << std::setprecision(digits) << std::setw(kFigureWidth)
             << spread.at("median").get<double>() << "  (" << spread.at("low").get<double>() << " to "
             << spread.at("high").get<double>() << ")\n";
    }

private:
    void _name(const std::string &name) { out_ << std::left << std::setw(kNameWidth) << name << std::right; }

    std::ostream &out_;
};

std::string _words(const json &command) {
    std::string text;
    for (const auto &word : command) {
        text += (text.empty() ? "" : " ") + word.get<std::string>();
    }
    return text;
}

void _print_time(Table &table, const json &time) {
    table.head("time, median and quartiles of " + dump(time.at("rounds")) + " rounds", "us");
    table.spread("wall", time.at("wall_us"), 0);
    table.spread("processor", time.at("processor_us"), 0);
    for (const char *other : {"true", "against"}) {
        if (time.contains(other)) {
            const json &ratios = time.at(other);
            table.head("the same, over that of", "");
            const std::string name = ratios.contains("command") ? _words(ratios.at("command")) : "/bin/true";
            table.spread(name + ", wall", ratios.at("wall"), 2);
            table.spread(name + ", processor", ratios.at("processor"), 2);
        }
    }
}

}  // namespace

void print_cost(std::ostream &out, const json &cost) {
    out << _words(cost.at("command")) << ": printed " << dump(cost.at("printed")) << ", status "
        << dump(cost.at("status")) << ", " << cost.at("machine").get<std::string>() << '\n';
    Table table(out);

    const json &flash = cost.at("flash");
    const json unstripped = flash.value("unstripped", json::array());
    table.head("flash", "bytes");
    for (const auto &[name, bytes] : flash.at("files").items()) {
        const bool symbols = std::find(unstripped.begin(), unstripped.end(), name) != unstripped.end();
        table.row(name, bytes, symbols ? "(not stripped)" : "");
    }
    table.row("together", flash.at("total"));

    if (cost.contains("memory")) {
        table.head("memory at its peak", "KiB");
        table.row("resident", cost.at("memory").at("resident_kib"));
        table.row("of it no file's", cost.at("memory").at("private_kib"));
    }
    if (cost.contains("time")) {
        _print_time(table, cost.at("time"));
    }
    table.head("system calls", "calls");
    table.rows(cost.at("system_calls").at("by_name"));
    table.row("together", cost.at("system_calls").at("total"));

    const json &wire = cost.at("wire");
    table.head("broker's wire", "messages");
    for (const auto &[name, sum] : wire.at("by_name").items()) {
        table.row(name, sum.at("messages"), dump(sum.at("bytes")) + " bytes");
    }
    table.row("together", wire.at("messages"), dump(wire.at("bytes")) + " bytes");

    table.head("written to", "bytes");
    table.rows(cost.at("written").at("files"));
    table.row("together", cost.at("written").at("total"));
}

}  // namespace emulator
