#include "broker.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "unix_socket.h"

namespace emulator {
namespace {

constexpr size_t kLongestBody = 16U << 20U;

// A body in a record. JSON holds no bytes that are no UTF-8, and a replay needs them.
void _put_body(json &record, const std::string &body) {
    record["body"] = body;
    if (valid_utf8(body) != body) {
        record["body_hex"] = to_hex(body);
    }
}

// The bytes of a reply with the scenario's faults in them.
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

Broker::Broker(Journal &journal, Cloud &cloud, const json &scenario, std::string path)
    : journal_(journal),
      path_(std::move(path)),
      answers_(journal, cloud, scenario.is_null() ? json::object() : scenario) {
    if (!scenario.is_null()) {
        set_rules(scenario.value("rules", json::array()));
    }
    if (scenario.is_null() || scenario.value("listening", true)) {
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
    }
    answers_.forget_requests();
    for (const Peer &peer : peers) {
        peer->hang_up();
        peer->thread.join();
    }
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
        ClientMessage message{connection.number, kAccept, {}, {}};
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

bool Broker::_read_message(Connection &connection, ClientMessage &message) {
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
    message.method = answers_.method_of(message);
    json record{{"connection", connection.number}, {"from", "client"}, {"type", message.type}};
    record["name"] = message_name(message.type);
    _put_body(record, message.body);
    journal_.add("message", record);
    return true;
}

void Broker::_handle(Connection &connection, const ClientMessage &message) {
    const json effects = rules_.effects(message);
    if (!_pause(std::chrono::milliseconds(effects.value("delay_ms", 0)))) {
        return;
    }
    const json reply = answers_.reply(message, effects);
    if (!reply.is_null() || effects.contains("body") || effects.contains("close")) {
        const bool numbered = message.type == kAccept;  // the greeting has type 16 itself
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
        _deliver(connection, kHelloAnswer, dump({{"errorcode", 0}, {"response", answers_.hello_answer()}}),
                 none);
    } else if (step.contains("push")) {
        _deliver(connection, kCloudRequest, dump({{"request", step.at("push")}}), none);
    } else if (step.contains("link")) {
        answers_.set_link(step.at("link"));
    } else if (step.contains("logic")) {
        answers_.set_logic(step.at("logic"));
    } else {
        _deliver(connection, step.at("type"), step.value("body", ""), none);
    }
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

void Broker::deliver_hello(std::string_view cloudAnswer) {
    send(kHelloAnswer, dump({{"errorcode", 0}, {"response", cloudAnswer}}));
}

void Broker::deliver_hello() {
    deliver_hello(answers_.hello_answer());
}

void Broker::push_request(std::string_view cloudRequest) {
    send(kCloudRequest, dump({{"request", cloudRequest}}));
}

}  // namespace emulator
