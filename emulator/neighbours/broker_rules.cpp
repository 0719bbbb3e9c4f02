#include "broker_rules.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "conversation.h"
#include "document.h"
#include "wire.h"

namespace emulator {
namespace {

constexpr std::array kRuleMembers{
    Member{"on", Kind::kAny, true}, Member{"connection", Kind::kNumber}, Member{"nth", Kind::kNumber},
    Member{"method", Kind::kText},  Member{"do", Kind::kObject, true},
};
constexpr std::array kEffectMembers{
    Member{"refuse", Kind::kInteger},    Member{"errorcode", Kind::kInteger},
    Member{"full", Kind::kFlag},         Member{"delay_ms", Kind::kCount},
    Member{"silence", Kind::kFlag},      Member{"close", Kind::kFlag},
    Member{"close_after", Kind::kCount}, Member{"magic", Kind::kHex},
    Member{"type", Kind::kCount},        Member{"length", Kind::kCount},
    Member{"truncate", Kind::kCount},    Member{"body", Kind::kText},
    Member{"garbage", Kind::kText},      Member{"garbage_hex", Kind::kHex},
    Member{"repeat", Kind::kCount},      Member{"hold", Kind::kFlag},
    Member{"answer", Kind::kText},       Member{"cloud_error", Kind::kInteger},
    Member{"pending", Kind::kInteger},   Member{"ready_after_ms", Kind::kCount},
    Member{"flip", Kind::kCount},        Member{"trickle", Kind::kObject},
    Member{"then", Kind::kList},
};
constexpr std::array kTrickleMembers{Member{"after", Kind::kCount, true}, Member{"ms", Kind::kCount, true},
                                     Member{"bytes", Kind::kNumber}, Member{"times", Kind::kNumber}};
constexpr std::array kStepMembers{
    Member{"push", Kind::kText},    Member{"type", Kind::kCount},    Member{"body", Kind::kText},
    Member{"link", Kind::kInteger}, Member{"logic", Kind::kInteger},
};

bool _fits(const json &on, int type) {
    return on == type || on == message_name(type) || (on == "request" && is_submit(type));
}

void _check_step(const json &step, const std::string &what) {
    if (step == "ask_hello" || step == "deliver_hello") {
        return;
    }
    check_members(step, kStepMembers, what);
    const bool body = step.contains("body");
    if (step.size() != (body ? 2 : 1) || (body && !step.contains("type"))) {
        throw std::invalid_argument(what + " must do one thing, not " + dump(step));
    }
}

void _check_rule(const json &rule, const std::string &what) {
    check_members(rule, kRuleMembers, what);
    const json &on = rule.at("on");
    if (std::none_of(kFromClient.begin(), kFromClient.end(), [&](int type) { return _fits(on, type); })) {
        throw std::invalid_argument("\"on\" of " + what + " is no message of a client: " + dump(on));
    }
    check_members(rule.at("do"), kEffectMembers, "\"do\" of " + what);
    if (rule.at("do").contains("trickle")) {
        check_members(rule.at("do").at("trickle"), kTrickleMembers, "\"trickle\" of " + what);
    }
    for (const json &step : rule.at("do").value("then", json::array())) {
        _check_step(step, "a step of \"then\" of " + what);
    }
}

bool _meets(const json &rule, const ClientMessage &message) {
    return _fits(rule.at("on"), message.type) &&
           rule.value("connection", message.connection) == message.connection &&
           rule.value("method", message.method) == message.method;
}

}  // namespace

json ClientMessage::parsed() const {
    return json::parse(valid_utf8(body), nullptr, false);
}

void BrokerRules::replace(const json &rules) {
    std::vector<Rule> checked;
    for (const json &rule : rules) {
        _check_rule(rule, "the scenario's rule " + std::to_string(checked.size() + 1));
        checked.push_back({rule});
    }
    const std::lock_guard lock(mutex_);
    rules_ = std::move(checked);
}

json BrokerRules::add(const json &rule) {
    _check_rule(rule, "the rule");
    const std::lock_guard lock(mutex_);
    rules_.push_back({rule});
    json absolute = rule;
    if (rule.contains("nth") && !rule.contains("connection")) {
        int nth = rule.at("nth");
        for (const auto &[event, count] : handled_) {
            const bool fits =
                _fits(rule.at("on"), event.first) && rule.value("method", event.second) == event.second;
            nth += fits ? count : 0;
        }
        absolute["nth"] = nth;
    }
    return absolute;
}

json BrokerRules::effects(const ClientMessage &message) {
    const std::lock_guard lock(mutex_);
    ++handled_[{message.type, message.method}];
    json effects = json::object();
    for (Rule &rule : rules_) {
        const bool meets = _meets(rule.when, message);
        rule.seen += meets ? 1 : 0;
        if (meets && rule.when.value("nth", rule.seen) == rule.seen) {
            effects.update(rule.when.at("do"));
        }
    }
    return effects;
}

}  // namespace emulator
