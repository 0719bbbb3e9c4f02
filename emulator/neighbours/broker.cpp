#include "broker.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "document.h"
#include "unix_socket.h"

namespace emulator {
namespace {

constexpr size_t kLongestBody = 16U << 20U;
constexpr int kPending = -3001;
constexpr int kBadMessage = -1;
constexpr int kLinkUp = 2;
constexpr int kLinkReconnecting = 4;

bool _is_submit(int type) {
    return type == kSubmit || type == kSubmitNoAccount;
}

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
    return on == type || on == message_name(type) || (on == "request" && _is_submit(type));
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

// A body in a record. JSON holds no bytes that are no UTF-8, and a replay needs them.
void _put_body(json &record, const std::string &body) {
    record["body"] = body;
    if (valid_utf8(body) != body) {
        record["body_hex"] = to_hex(body);
    }
}

// The bytes of a reply after the faults that the scenario wants in it.
std::string _faulty_frame(int type, const std::string &body, const json &effects) {
    if (effects.contains("garbage")) {
        return effects.at("garbage");
    }
    if (effects.contains("garbage_hex")) {
        return from_hex(effects.at("garbage_hex"));
    }
    const std::string magic = effects.contains("magic") ? from_hex(effects.at("magic")) : std::string(kMagic);
    const std::string sent = body.substr(0, effects.value("truncate", body.size()));
    return encode_frame(magic, effects.value("type", type), effects.value("length", body.size()), sent);
}

}  // namespace

struct Broker::Connection {
    Connection(Descriptor descriptor, int which) : fd(std::move(descriptor)), number(which) {}
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    void hang_up() const { shutdown(fd.get(), SHUT_RDWR); }

    const Descriptor fd;
    const int number;
    std::thread thread;
    std::mutex writing;       // one frame at a time
    std::string held;         // under writing: bytes that follow the next reply
    bool registered = false;  // under the broker's mutex_
    bool ended = false;       // under the broker's mutex_
};

struct Broker::Message {
    int type = 0;
    std::string body;
    std::string method;  // of the cloud request that it carries or asks for
    // Discarded when the body is not JSON.
    [[nodiscard]] json parsed() const { return json::parse(valid_utf8(body), nullptr, false); }
};

struct Broker::Request {
    std::string method;
    std::string answer;
    int polls = 0;  // to be answered with "not yet" before the answer; -1 for ever
    std::chrono::steady_clock::time_point ready;
};

struct Broker::Rule {
    json when;
    int seen = 0;
};

Broker::Broker(Journal &journal, Cloud &cloud, json scenario, std::string path)
    : journal_(journal),
      cloud_(cloud),
      scenario_(scenario.is_null() ? json::object() : std::move(scenario)),
      path_(std::move(path)),
      logic_(scenario_.value("logic", 0)),
      link_(scenario_.value("link", kLinkUp)),
      next_id_(scenario_.value("first_id", 1)) {
    set_rules(scenario_.value("rules", json::array()));
    if (scenario_.value("listening", true)) {
        start();
    }
}

Broker::~Broker() {
    stop();
}

void Broker::start() {
    const std::lock_guard lock(mutex_);
    if (listening_.ok()) {
        return;
    }
    listening_ = bound_socket(SOCK_STREAM, path_);
    listen(listening_.get(), SOMAXCONN);
    stopping_ = false;
    acceptor_ = std::thread([this, fd = listening_.get()] { _accept_loop(fd); });
}

void Broker::stop() {
    std::list<Peer> peers;
    {
        const std::lock_guard lock(mutex_);
        if (!listening_.ok()) {
            return;
        }
        stopping_ = true;
        unlink(path_.c_str());
        shutdown(listening_.get(), SHUT_RDWR);  // ends the wait in accept
        changed_.notify_all();
    }
    acceptor_.join();
    {
        const std::lock_guard lock(mutex_);
        listening_.reset();
        peers.swap(connections_);
        requests_.clear();
    }
    for (const Peer &peer : peers) {
        peer->hang_up();
        peer->thread.join();
    }
}

void Broker::set_rules(const json &rules) {
    std::vector<Rule> checked;
    for (const json &rule : rules) {
        _check_rule(rule, "the scenario's rule " + std::to_string(checked.size() + 1));
        checked.push_back({rule});
    }
    const std::lock_guard lock(mutex_);
    rules_ = std::move(checked);
}

json Broker::add_rule(const json &rule) {
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

int Broker::logic() const {
    const std::lock_guard lock(mutex_);
    return logic_;
}

void Broker::set_logic(int value) {
    const std::lock_guard lock(mutex_);
    logic_ = value;
}

int Broker::link() const {
    const std::lock_guard lock(mutex_);
    return link_;
}

void Broker::set_link(int value) {
    const std::lock_guard lock(mutex_);
    link_ = value;
}

void Broker::_accept_loop(int listening) {
    for (;;) {
        Descriptor fd(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
        const std::lock_guard lock(mutex_);
        if (stopping_ || !fd.ok()) {
            return;
        }
        connections_.remove_if([](const Peer &peer) {
            if (peer->ended) {
                peer->thread.join();
            }
            return peer->ended;
        });
        const Peer peer = std::make_shared<Connection>(std::move(fd), next_connection_++);
        connections_.push_back(peer);
        peer->thread = std::thread([this, peer = peer.get()] { _serve(*peer); });
    }
}

void Broker::_serve(Connection &connection) {
    journal_.add("connect", {{"connection", connection.number}});
    try {
        Message message;
        message.type = kAccept;
        do {
            _handle(connection, message);
        } while (_read_message(connection, message));
    } catch (const std::exception &error) {  // a scenario that nothing has refused before
        journal_.add_scenario_error({{"connection", connection.number}, {"text", error.what()}});
    }
    journal_.add("close", {{"connection", connection.number}});
    connection.hang_up();
    const std::lock_guard lock(mutex_);
    connection.registered = false;
    connection.ended = true;
}

bool Broker::_read_message(Connection &connection, Message &message) {
    std::string header(kHeaderSize, '\0');
    const bool whole = read_all(connection.fd.get(), header);
    if (!whole && header.empty()) {
        return false;
    }
    const size_t length = whole ? decode_number(header.substr(4)) : 0;
    message.body.assign(length <= kLongestBody ? length : 0, '\0');
    if (!whole || !header.starts_with(kMagic) || length > kLongestBody ||
        !read_all(connection.fd.get(), message.body)) {
        journal_.add("bad_message",
                     {{"connection", connection.number}, {"bytes", to_hex(header + message.body)}});
        return false;
    }
    message.type = static_cast<int>(decode_number(header.substr(2, 2)));
    message.method = _method_of(message);
    json record{{"connection", connection.number}, {"from", "client"}, {"type", message.type}};
    record["name"] = message_name(message.type);
    _put_body(record, message.body);
    journal_.add("message", record);
    return true;
}

std::string Broker::_method_of(const Message &message) {
    if (_is_submit(message.type)) {
        return _text(json::parse(_text(message.parsed(), "request"), nullptr, false), "method");
    }
    const std::lock_guard lock(mutex_);
    const auto request = requests_.find(_integer(message.parsed(), "id", 0));
    return message.type == kPoll && request != requests_.end() ? request->second.method : std::string();
}

json Broker::_effects(const Connection &connection, const Message &message) {
    const std::lock_guard lock(mutex_);
    ++handled_[{message.type, message.method}];
    json effects = json::object();
    for (Rule &rule : rules_) {
        const json &on = rule.when.at("on");
        const bool fits = _fits(on, message.type) &&
                          rule.when.value("connection", connection.number) == connection.number &&
                          rule.when.value("method", message.method) == message.method;
        rule.seen += fits ? 1 : 0;
        if (fits && rule.when.value("nth", rule.seen) == rule.seen) {
            effects.update(rule.when.at("do"));
        }
    }
    return effects;
}

void Broker::_handle(Connection &connection, const Message &message) {
    const json effects = _effects(connection, message);
    if (!_pause(std::chrono::milliseconds(effects.value("delay_ms", 0)))) {
        return;
    }
    const json reply = _reply(message, effects);
    if (!reply.is_null() || effects.contains("body") || effects.contains("close")) {
        const bool numbered = message.type == kAccept;  // its own reply, as it were
        _deliver(connection, message.type + (numbered ? 0 : 1), effects.value("body", dump(reply)), effects);
    }
    if (message.type == kRegister && reply.value("errorcode", -1) == 0) {
        const std::lock_guard lock(mutex_);
        connection.registered = true;
        changed_.notify_all();
    }
    for (const json &step : effects.value("then", json::array())) {
        _then(connection, step);
    }
}

json Broker::_reply(const Message &message, const json &effects) {
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

json Broker::_submit(const Message &message, const json &effects) {
    const std::string text = _text(message.parsed(), "request");
    if (text.empty()) {
        return {{"errorcode", kBadMessage}};
    }
    Request request;
    request.method = message.method;
    request.polls = effects.value("pending", scenario_.value("pending", 0));
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

json Broker::_poll(const Message &message, const json &effects) {
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

void Broker::_notify(const Message &message) {
    const int event = _integer(message.parsed(), "event", 0);
    journal_.add("event", {{"event", event}});
    const std::lock_guard lock(mutex_);
    if (event == 10 || event == 11) {
        logic_ = event == 10 ? 1 : 0;
    }
    if (event >= 1 && event <= 3) {
        link_ = kLinkReconnecting;
        link_polls_ = scenario_.value("reconnect_polls", 0);
        link_ready_ =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(scenario_.value("reconnect_ms", 0));
    }
}

int Broker::_link_now() {
    const std::lock_guard lock(mutex_);
    if (link_ == kLinkReconnecting && link_polls_ == 0 && std::chrono::steady_clock::now() >= link_ready_) {
        link_ = kLinkUp;
    }
    if (link_polls_ > 0) {
        --link_polls_;
    }
    return link_;
}

void Broker::_deliver(Connection &connection, int type, const std::string &body, const json &effects) {
    json record{{"connection", connection.number}, {"from", "broker"}, {"type", type}};
    record["name"] = message_name(type);
    _put_body(record, body);
    if (!effects.empty()) {
        record["scripted"] = effects;
    }
    const bool silent = effects.value("silence", false) || effects.value("close", false);
    std::string bytes = _faulty_frame(type, body, effects);
    if (!effects.value("hold", false)) {
        bytes.resize(std::min(bytes.size(), effects.value("close_after", bytes.size())));
    }
    if (const size_t at = effects.value("flip", bytes.size()); at < bytes.size()) {
        bytes[at] = static_cast<char>(bytes[at] ^ 1);
    }
    if (!effects.empty() && !silent) {
        record["bytes"] = to_hex(bytes);
    }
    journal_.add(silent ? "no_reply" : "message", record);
    const std::lock_guard lock(connection.writing);
    if (effects.value("hold", false)) {
        connection.held += bytes;
        return;
    }
    if (silent) {
        bytes.clear();
    }
    for (int i = effects.value("repeat", 1); i > 0; --i) {
        _write(connection, bytes, effects.value("trickle", json::object()));
    }
    write_all(connection.fd.get(), std::exchange(connection.held, {}));
    if (effects.contains("close_after") || effects.value("close", false)) {
        connection.hang_up();
    }
}

void Broker::_write(const Connection &connection, const std::string &bytes, const json &trickle) {
    size_t sent = std::min(bytes.size(), trickle.value("after", bytes.size()));
    write_all(connection.fd.get(), bytes.substr(0, sent));
    // Until all is there, the broker stops or the peer has left.
    size_t portion = trickle.value("bytes", bytes.size());
    size_t times = trickle.value("times", bytes.size());
    pollfd gone{connection.fd.get(), POLLRDHUP, 0};
    while (sent < bytes.size() && _pause(std::chrono::milliseconds(trickle.value("ms", 0))) &&
           poll(&gone, 1, 0) == 0) {
        portion = times-- > 0 ? portion : bytes.size();
        write_all(connection.fd.get(), bytes.substr(sent, portion));
        sent += portion;
    }
}

void Broker::_then(Connection &connection, const json &step) {
    const json none = json::object();
    if (step == "ask_hello") {
        _deliver(connection, kAskHello, "", none);
    } else if (step == "deliver_hello") {
        _deliver(connection, kHelloAnswer, dump({{"errorcode", 0}, {"response", _hello_answer()}}), none);
    } else if (step.contains("push")) {
        _deliver(connection, kCloudRequest, dump({{"request", step.at("push")}}), none);
    } else if (step.contains("link")) {
        set_link(step.at("link"));
    } else if (step.contains("logic")) {
        set_logic(step.at("logic"));
    } else {
        _deliver(connection, step.at("type"), step.value("body", ""), none);
    }
}

std::string Broker::_hello_answer() {
    const std::vector<json> hellos = journal_.messages(kHello);
    const std::string body = hellos.empty() ? "" : hellos.back().at("body");
    return cloud_.answer(_text(json::parse(valid_utf8(body), nullptr, false), "response"));
}

bool Broker::_pause(std::chrono::milliseconds time) {
    std::unique_lock lock(mutex_);
    return !changed_.wait_for(lock, time, [this] { return stopping_; });
}

Broker::Peer Broker::_registered() {
    std::unique_lock lock(mutex_);
    Peer found;
    const bool there = changed_.wait_for(lock, kWatchdog, [&] {
        for (const Peer &peer : connections_) {
            if (peer->registered) {
                found = peer;
            }
        }
        return found != nullptr;
    });
    if (!there) {
        throw std::runtime_error("no client has registered itself");
    }
    return found;
}

void Broker::send(int type, std::string_view body) {
    _deliver(*_registered(), type, std::string(body), json::object());
}

void Broker::ask_hello() {
    send(kAskHello, "");
}

void Broker::deliver_hello(std::string_view cloud_answer) {
    send(kHelloAnswer, dump({{"errorcode", 0}, {"response", cloud_answer}}));
}

void Broker::deliver_hello() {
    deliver_hello(_hello_answer());
}

void Broker::push_request(std::string_view cloud_request) {
    send(kCloudRequest, dump({{"request", cloud_request}}));
}

}  // namespace emulator
