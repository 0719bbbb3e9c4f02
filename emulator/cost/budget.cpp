#include "budget.h"

#include <array>
#include <stdexcept>

#include "document.h"

namespace emulator {
namespace {

constexpr std::array kEntryMembers{Member{"before", Kind::kText}, Member{"limits", Kind::kObject, true}};

void _compare(const json &figure, const json &limit, const std::string &name,
              std::vector<std::string> &over) {
    if (limit.is_object() && figure.is_object()) {
        for (const auto &[member, value] : limit.items()) {
            const auto found = figure.find(member);
            _compare(found == figure.end() ? json() : *found, value,
                     name + (name.empty() ? "" : ".") + member, over);
        }
        return;
    }
    const bool holds = limit.is_number() && figure.is_number() ? figure <= limit : figure == limit;
    if (!holds) {
        over.push_back(name + " is " + (figure.is_null() ? "not measured" : dump(figure)) +
                       ", the budget is " + dump(limit));
    }
}

}  // namespace

std::vector<std::string> over_budget(const json &cost, const json &limits) {
    std::vector<std::string> over;
    _compare(cost, limits, "", over);
    return over;
}

const json &budget_of(const json &budget, const std::string &build) {
    if (!budget.is_object() || !budget.contains(build) || !budget.at(build).is_object()) {
        throw std::invalid_argument("the budget has no build \"" + build + "\"");
    }
    for (const auto &[command, entry] : budget.at(build).items()) {
        check_members(entry, kEntryMembers, "the budget of \"" + command + "\"");
    }
    return budget.at(build);
}

}  // namespace emulator
