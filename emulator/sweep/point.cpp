#include "point.h"

#include <algorithm>
#include <map>
#include <random>
#include <stdexcept>

namespace emulator::sweep {

std::string to_text(const Point &point) {
    const std::string number = point.number > 0 ? ":" + std::to_string(point.number) : "";
    return point.kind + ':' + point.place + number + ':' + point.fault;
}

Point parse_point(const std::string &text) {
    const size_t first = text.find(':');
    const size_t last = text.rfind(':');
    Point point;
    if (first != last && last != std::string::npos) {
        point.kind = text.substr(0, first);
        point.fault = text.substr(last + 1);
        point.place = text.substr(first + 1, last - first - 1);
        const size_t colon = point.place.rfind(':');
        const std::string number = colon == std::string::npos ? "" : point.place.substr(colon + 1);
        if (!number.empty() && number.size() < 10 &&
            number.find_first_not_of("0123456789") == std::string::npos) {
            point.number = std::stoi(number);
            point.place.erase(colon);
        }
    }
    if (std::find(kKinds.begin(), kKinds.end(), point.kind) == kKinds.end() || to_text(point) != text) {
        throw std::invalid_argument(text + " is no point of a sweep");
    }
    return point;
}

std::vector<Point> sample(const std::vector<Point> &points, size_t limit, unsigned seed) {
    if (limit == 0 || limit >= points.size()) {
        return points;
    }
    std::mt19937 random(seed);
    std::map<std::string, std::vector<size_t>> byKind;
    for (size_t i = 0; i < points.size(); ++i) {
        byKind[points[i].kind].push_back(i);
    }
    for (auto &[kind, indexes] : byKind) {
        for (size_t i = indexes.size(); i > 1; --i) {  // std::shuffle differs between libraries
            std::swap(indexes[i - 1], indexes[random() % i]);
        }
    }
    std::vector<size_t> chosen;
    for (size_t round = 0; chosen.size() < limit; ++round) {
        for (const auto &[kind, indexes] : byKind) {
            if (round < indexes.size() && chosen.size() < limit) {
                chosen.push_back(indexes[round]);
            }
        }
    }
    std::sort(chosen.begin(), chosen.end());
    std::vector<Point> result;
    for (const size_t index : chosen) {
        result.push_back(points[index]);
    }
    return result;
}

}  // namespace emulator::sweep
