#include "broker_answers.h"

#include <utility>
#include <vector>

#include "conversation.h"
#include "wire.h"

namespace emulator {
namespace {

constexpr int kPending = -3001;
constexpr int kBadMessage = -1;
constexpr int kLinkUp = 2;
constexpr int kLinkReconnecting = 4;

// The text of a member, or "" where there is none: messages may be hostile.
std::string _text(const json &object, const char *name) {
    return object.is_object() && object.contains(name) && object.at(name).is_string()
               ? object.at(name).get<std::string>()
               : std::string();
}

int _integer(const json &object, const char *name, int otherwise) {
    return object.is_object() && object.contains(name) && object.at(name).is_number_integer()
               ? object.at(name).get<int>()
               : otherwise;
}

}  // namespace

BrokerAnswers::BrokerAnswers(Journal &journal, Cloud &cloud, const json &scenario)
    : journal_(journal),
      cloud_(cloud),
      pending_(scenario.value("pending", 0)),
      reconnect_polls_(scenario.value("reconnect_polls", 0)),
      reconnect_time_(scenario.value("reconnect_ms", 0)),
      logic_(scenario.value("logic", 0)),
      link_(scenario.value("link", kLinkUp)),
      next_id_(scenario.value("first_id", 1)) {}

json BrokerAnswers::reply(const ClientMessage &message, const json &effects) {
    const int scripted = effects.value("errorcode", effects.value("refuse", 0));
    if (message.type == kAccept) {
        return {{"errorcode", scripted}, {"result", effects.value("full", false) ? 1 : 0}};
    }
    if (message.type == kPoll) {
        return _poll(message, effects);
    }
    if (scripted != 0) {
        return {{"errorcode", scripted}};
    }
    switch (message.type) {
        case kSubmit:
        case kSubmitNoAccount:
            return _submit(message, effects);
        case kLink:
            return {{"errorcode", 0}, {"status", _link_now()}};
        case kLogic:
            return {{"errorcode", 0}, {"status", logic()}};
        case kNotify:
            _notify(message);
            return {{"errorcode", 0}};
        case kRegister:
            return {{"errorcode", 0}};
        default:
            return nullptr;
    }
}

json BrokerAnswers::_submit(const ClientMessage &message, const json &effects) {
    const std::string text = _text(message.parsed(), "request");
    if (text.empty()) {
        return {{"errorcode", kBadMessage}};
    }
    Request request;
    request.method = message.method;
    request.polls = effects.value("pending", pending_);
    request.ready =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(effects.value("ready_after_ms", 0));
    if (effects.contains("answer")) {
        request.answer = effects.at("answer");
    } else if (effects.contains("cloud_error")) {
        request.answer = Cloud::failure(effects.at("cloud_error"), "Scripted");
    } else if (link() == kLinkUp) {
        request.answer = cloud_.answer(text);
    } else {
        request.polls = -1;  // the request never gets to the cloud
    }
    const std::lock_guard lock(mutex_);
    const int id = next_id_++;
    requests_[id] = std::move(request);
    return {{"errorcode", 0}, {"id", id}};
}

json BrokerAnswers::_poll(const ClientMessage &message, const json &effects) {
    const std::lock_guard lock(mutex_);
    const int id = _integer(message.parsed(), "id", 0);
    const auto found = requests_.find(id);
    const bool known = found != requests_.end();
    if (!effects.contains("answer") && !effects.contains("errorcode")) {
        if (!known || effects.contains("pending") || found->second.polls != 0 ||
            found->second.ready > std::chrono::steady_clock::now()) {
            if (known && found->second.polls > 0) {
                --found->second.polls;
            }
            return {{"id", id}, {"errorcode", kPending}};
        }
    }
    json reply{{"id", id},
               {"errorcode", effects.value("errorcode", 0)},
               {"response", effects.value("answer", known ? found->second.answer : std::string())}};
    if (known && effects.empty()) {  // an answer that a fault spoils stays for the next poll
        requests_.erase(found);
    }
    return reply;
}

void BrokerAnswers::_notify(const ClientMessage &message) {
    const int event = _integer(message.parsed(), "event", 0);
    journal_.add("event", {{"event", event}});
    const std::lock_guard lock(mutex_);
    if (event == 10 || event == 11) {
        logic_ = event == 10 ? 1 : 0;
    }
    if (event >= 1 && event <= 3) {
        link_ = kLinkReconnecting;
        link_polls_ = reconnect_polls_;
        link_ready_ = std::chrono::steady_clock::now() + reconnect_time_;
    }
}

int BrokerAnswers::_link_now() {
    const std::lock_guard lock(mutex_);
    if (link_ == kLinkReconnecting && link_polls_ == 0 && std::chrono::steady_clock::now() >= link_ready_) {
        link_ = kLinkUp;
    }
    if (link_polls_ > 0) {
        --link_polls_;
    }
    return link_;
}

std::string BrokerAnswers::method_of(const ClientMessage &message) const {
    if (is_submit(message.type)) {
        return _text(json::parse(_text(message.parsed(), "request"), nullptr, false), "method");
    }
    const std::lock_guard lock(mutex_);
    const auto request = requests_.find(_integer(message.parsed(), "id", 0));
    return message.type == kPoll && request != requests_.end() ? request->second.method : std::string();
}

std::string BrokerAnswers::hello_answer() {
    const std::vector<json> hellos = journal_.messages(kHello);
    const std::string body = hellos.empty() ? "" : hellos.back().at("body");
    return cloud_.answer(_text(json::parse(valid_utf8(body), nullptr, false), "response"));
}

void BrokerAnswers::forget_requests() {
    const std::lock_guard lock(mutex_);
    requests_.clear();
}

int BrokerAnswers::logic() const {
    const std::lock_guard lock(mutex_);
    return logic_;
}

void BrokerAnswers::set_logic(int value) {
    const std::lock_guard lock(mutex_);
    logic_ = value;
}

int BrokerAnswers::link() const {
    const std::lock_guard lock(mutex_);
    return link_;
}

void BrokerAnswers::set_link(int value) {
    const std::lock_guard lock(mutex_);
    link_ = value;
}

}  // namespace emulator
