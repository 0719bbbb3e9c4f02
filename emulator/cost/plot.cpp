#include "plot.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <sstream>

namespace emulator {
namespace {

constexpr double kWidth = 640;
constexpr double kHeight = 400;
constexpr double kLeft = 70;
constexpr double kRight = 20;
constexpr double kTop = 40;
constexpr double kBottom = 50;
constexpr double kLegendLine = 18;
constexpr std::array kColours{"#1b6ca8", "#c1440e", "#3a7d44", "#7b3f98", "#8a6d1d"};

// One axis: whole powers of ten from below the least to above the greatest value.
class Axis {
public:
    Axis(double from, double to) : from_(from), to_(to) {}
    void take(double value) {
        least_ = std::min(least_, std::floor(std::log10(value)));
        most_ = std::max(most_, std::ceil(std::log10(value)));
    }
    [[nodiscard]] double at(double value) const {
        return from_ + (to_ - from_) * (std::log10(value) - least_) / std::max(most_ - least_, 1.0);
    }
    [[nodiscard]] std::vector<double> powers() const {
        std::vector<double> values;
        for (double power = least_; power <= most_; ++power) {
            values.push_back(std::pow(10, power));
        }
        return values;
    }

private:
    double from_;
    double to_;
    double least_ = std::numeric_limits<double>::max();
    double most_ = std::numeric_limits<double>::lowest();
};

std::string _escaped(const std::string &text) {
    std::string escaped;
    for (const char c : text) {
        escaped += c == '&' ? "&amp;" : c == '<' ? "&lt;" : std::string(1, c);
    }
    return escaped;
}

std::string _number(double value) {
    std::ostringstream text;
    text << (value >= 1e6 ? value / 1e6 : value >= 1e3 ? value / 1e3 : value);
    return text.str() + (value >= 1e6 ? "M" : value >= 1e3 ? "k" : "");
}

void _text(std::ostream &out, double x, double y, const char *anchor, const std::string &text,
           const std::string &more = {}) {
    out << "<text x=\"" << x << "\" y=\"" << y << "\" text-anchor=\"" << anchor << "\" " << more << ">"
        << _escaped(text) << "</text>\n";
}

void _line(std::ostream &out, double x1, double y1, double x2, double y2) {
    out << "<line x1=\"" << x1 << "\" y1=\"" << y1 << "\" x2=\"" << x2 << "\" y2=\"" << y2
        << "\" stroke=\"#ccc\"/>\n";
}

}  // namespace

std::string plot(const std::string &title, const std::string &work, const std::string &cost,
                 const std::vector<Series> &series) {
    Axis across(kLeft, kWidth - kRight);
    Axis up(kHeight - kBottom, kTop);
    for (const Series &one : series) {
        for (const auto &[x, y] : one.points) {
            across.take(x);
            up.take(y);
        }
    }
    std::ostringstream out;
    out << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " << kWidth << ' ' << kHeight
        << "\" font-family=\"sans-serif\" font-size=\"12\">\n<rect width=\"100%\" height=\"100%\" "
           "fill=\"#fff\"/>\n";
    _text(out, kWidth / 2, kTop / 2, "middle", title, "font-size=\"15\"");
    _text(out, (kLeft + kWidth - kRight) / 2, kHeight - kBottom / 4, "middle", work);
    _text(out, 0, 0, "middle", cost,
          "transform=\"translate(15," + std::to_string(kHeight / 2) + ") rotate(-90)\"");
    for (const double value : across.powers()) {
        _line(out, across.at(value), kTop, across.at(value), kHeight - kBottom);
        _text(out, across.at(value), kHeight - kBottom + kLegendLine, "middle", _number(value));
    }
    for (const double value : up.powers()) {
        _line(out, kLeft, up.at(value), kWidth - kRight, up.at(value));
        _text(out, kLeft - 6, up.at(value) + 4, "end", _number(value));
    }
    for (size_t i = 0; i < series.size(); ++i) {
        const std::string colour = kColours[i % kColours.size()];
        out << "<polyline fill=\"none\" stroke-width=\"2\" stroke=\"" << colour << "\" points=\"";
        for (const auto &[x, y] : series[i].points) {
            out << across.at(x) << ',' << up.at(y) << ' ';
        }
        out << "\"/>\n";
        for (const auto &[x, y] : series[i].points) {
            out << "<circle r=\"3\" cx=\"" << across.at(x) << "\" cy=\"" << up.at(y) << "\" fill=\"" << colour
                << "\"/>\n";
        }
        _text(out, kLeft + 10, kTop + kLegendLine * static_cast<double>(i + 1), "start", series[i].name,
              "fill=\"" + colour + "\"");
    }
    out << "</svg>\n";
    return out.str();
}

}  // namespace emulator
