#include "sequence_page.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <ostream>
#include <sstream>
#include <string_view>

#include "sequence.h"

namespace emulator {
namespace {

constexpr int kLaneStep = 58;
constexpr int kMargin = 30;
constexpr int kRowHeight = 22;
constexpr int kWidth = kMargin * 2 + kLaneStep * (static_cast<int>(kLaneNames.size()) - 1);
constexpr size_t kDumpedBytes = 4096;  // of a longer message its beginning

constexpr const char *kHead = R"(<meta name="viewport" content="width=device-width, initial-scale=1">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'">
<style>
:root { color-scheme: light dark; --lane: #b6bcc6; --arrow: #1f4e8c; --implied: #7a8699; --fault: #b3261e;
        --back: #fff; --text: #1b1f24; --soft: #5a6372; --open: #f2f5f9; }
@media (prefers-color-scheme: dark) {
  :root { --lane: #4a5261; --arrow: #8ab8ff; --implied: #8a94a6; --fault: #ff8a80; --back: #14171c; --text: #e4e8ee;
          --soft: #a3acba; --open: #1e232b; } }
body { margin: 0; background: var(--back); color: var(--text); font: 14px/22px system-ui, sans-serif; }
h1 { font-size: 18px; margin: 12px 16px; overflow-wrap: anywhere; }
.row, summary { display: flex; gap: 12px; padding: 0 16px; }
.row { position: sticky; top: 0; background: var(--back); border-bottom: 1px solid var(--lane); z-index: 1; }
summary { cursor: pointer; list-style: none; }
summary::-webkit-details-marker { display: none; }
summary:hover, summary:focus-visible { background: var(--open); }
details[open] > summary { background: var(--open); font-weight: 600; }
.t { flex: 0 0 76px; text-align: right; color: var(--soft); font-variant-numeric: tabular-nums; }
svg { flex: 0 0 auto; display: block; }
.say { flex: 1 1 auto; min-width: 0; }
.say div { overflow: hidden; text-overflow: ellipsis; white-space: nowrap; min-height: 22px; }
.implied { color: var(--soft); font-style: italic; }
.fault { color: var(--fault); font-weight: 600; }
.note { font-weight: 600; }
svg text { fill: var(--text); font: 11px system-ui, sans-serif; text-anchor: middle; }
svg .l { stroke: var(--lane); }
svg .a { stroke: var(--arrow); fill: var(--arrow); stroke-width: 1.5; }
svg .a.implied { stroke: var(--implied); fill: var(--implied); stroke-dasharray: 4 3; }
svg .a.fault { stroke: var(--fault); fill: var(--fault); }
.more { padding: 4px 16px 12px 104px; background: var(--open); }
pre { margin: 4px 0; white-space: pre-wrap; overflow-wrap: anywhere; font: 12px/17px ui-monospace, monospace; }
pre.hex { white-space: pre; overflow-x: auto; }
h2 { font-size: 12px; margin: 8px 0 0; color: var(--soft); }
@media (max-width: 900px) { .row, summary { flex-wrap: wrap; gap: 0; padding: 0 4px; } .say { flex-basis: 100%; }
  .t { flex-basis: 100%; text-align: left; } .more { padding-left: 4px; } svg { max-width: 100%; } }
</style>
)";

std::string _escaped(const std::string &text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
            case '&':
                result += "&amp;";
                break;
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            case '"':
                result += "&quot;";
                break;
            default:
                result += c;
        }
    }
    return result;
}

int _x(Lane lane) {
    return kMargin + kLaneStep * static_cast<int>(lane);
}

const char *_class(const Arrow &arrow) {
    return arrow.fault                             ? "fault"
           : arrow.style == Arrow::Style::kImplied ? "implied"
           : arrow.style == Arrow::Style::kNote    ? "note"
                                                   : "";
}

void _draw_arrow(std::ostream &out, const Arrow &arrow, int y) {
    const int from = _x(arrow.from);
    const int to = _x(arrow.to);
    const int back = to > from ? -7 : 7;  // from the head
    const bool lost = arrow.style == Arrow::Style::kLost;
    const int end = lost ? (from + to) / 2 : to;
    out << "<g class=\"a " << _class(arrow) << "\"><line x1=\"" << from << "\" y1=\"" << y << "\" x2=\""
        << end << "\" y2=\"" << y << "\"/>";
    if (lost) {
        out << "<path fill=\"none\" d=\"M" << end - 4 << ' ' << y - 4 << "l8 8m0 -8l-8 8\"/></g>";
        return;
    }
    out << "<path stroke-dasharray=\"none\" d=\"M" << to << ' ' << y << 'l' << back << " -4v8z\"/></g>";
}

// Where the page is too narrow for it, it becomes narrower, with the lanes above each other all the same.
void _begin_drawing(std::ostream &out, int height) {
    out << "<svg width=\"" << kWidth << "\" height=\"" << height << "\" viewBox=\"0 0 " << kWidth << ' '
        << height << "\" preserveAspectRatio=\"none\" ";
}

void _draw(std::ostream &out, const std::vector<Arrow> &arrows) {
    const int height = kRowHeight * static_cast<int>(arrows.size());
    _begin_drawing(out, height);
    out << "role=\"img\" aria-label=\"";
    for (const Arrow &arrow : arrows) {
        if (arrow.style != Arrow::Style::kNote) {
            out << kLaneNames.at(static_cast<size_t>(arrow.from)) << " to "
                << kLaneNames.at(static_cast<size_t>(arrow.to)) << ". ";
        }
    }
    out << "\">";
    for (size_t i = 0; i < kLaneNames.size(); ++i) {
        const int x = _x(static_cast<Lane>(i));
        out << "<line class=\"l\" x1=\"" << x << "\" y1=\"0\" x2=\"" << x << "\" y2=\"" << height << "\"/>";
    }
    int y = kRowHeight / 2;
    for (const Arrow &arrow : arrows) {
        if (arrow.style != Arrow::Style::kNote) {
            _draw_arrow(out, arrow, y);
        }
        y += kRowHeight;
    }
    out << "</svg>";
}

// The record with the texts in it unfolded that are JSON themselves.
std::string _pretty(json record) {
    for (json &member : record) {
        if (member.is_string()) {
            member = unfolded(member.get<std::string>());
        }
    }
    return record.dump(2, ' ', false, json::error_handler_t::replace);
}

void _row(std::ostream &out, const json &record, const std::vector<Arrow> &arrows) {
    std::ostringstream time;
    time.setf(std::ios::fixed);
    time.precision(6);
    time << (record.contains("t") && record.at("t").is_number() ? record.at("t").get<double>() : 0.0);
    out << "<details><summary><span class=\"t\">" << time.str() << "</span>";
    _draw(out, arrows);
    out << "<div class=\"say\">";
    for (const Arrow &arrow : arrows) {
        out << "<div class=\"" << _class(arrow) << "\">" << (arrow.fault ? "\u26a0 " : "")
            << _escaped(arrow.label) << "</div>";
    }
    out << "</div></summary><div class=\"more\"><pre>" << _escaped(_pretty(record)) << "</pre>";
    if (const std::string bytes = wire_bytes(record); !bytes.empty()) {
        out << "<h2>" << bytes.size() << " bytes</h2><pre class=\"hex\">"
            << _escaped(hex_dump(std::string_view(bytes).substr(0, kDumpedBytes))) << "</pre>";
    }
    out << "</div></details>\n";
}

void _lane_names(std::ostream &out) {
    out << "<div class=\"row\"><span class=\"t\">seconds</span>";
    _begin_drawing(out, kRowHeight);
    out << "role=\"img\" aria-label=\"lanes\">";
    for (size_t i = 0; i < kLaneNames.size(); ++i) {
        out << "<text x=\"" << _x(static_cast<Lane>(i)) << "\" y=\"15\">" << kLaneNames.at(i) << "</text>";
    }
    out << "</svg></div>\n";
}

}  // namespace

std::string hex_dump(std::string_view bytes) {
    constexpr size_t kPerLine = 16;
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += kPerLine) {
        std::array<char, 24> number{};
        std::snprintf(number.data(), number.size(), "%06zx ", at);
        text += number.data();
        std::string letters;
        for (size_t i = at; i < at + kPerLine; ++i) {
            const auto byte = i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U;
            std::snprintf(number.data(), number.size(), i < bytes.size() ? " %02x" : "   ", byte);
            text += number.data();
            letters += i >= bytes.size() ? "" : byte >= 0x20 && byte < 0x7F ? std::string(1, bytes[i]) : ".";
        }
        text += "  " + letters + "\n";
    }
    return text;
}

void write_page(std::ostream &out, JournalReader &journal, const std::string &title) {
    out << "<!DOCTYPE html>\n<html lang=\"en\">\n<meta charset=\"utf-8\">\n<title>"
        << _escaped(printable(title)) << "</title>\n"
        << kHead << "<h1>" << _escaped(printable(title)) << "</h1>\n";
    _lane_names(out);
    out << "<main>\n";
    Sequence sequence;
    while (const std::optional<json> record = journal.next()) {
        if (const std::vector<Arrow> arrows = sequence.arrows(*record); !arrows.empty()) {
            _row(out, *record, arrows);
        }
    }
    out << "</main>\n</html>\n";
}

}  // namespace emulator
