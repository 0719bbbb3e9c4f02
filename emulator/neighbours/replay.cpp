#include "replay.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include "deep_json.h"
#include "unix_socket.h"
#include "wire.h"

namespace emulator {
namespace {

constexpr size_t kLongestBody = 16U << 20U;
constexpr int kPending = -3001;
constexpr int kNotInTheRecord = -1;

using What = Spoken::What;

// A turn that is asked for by itself: polls follow their request, and the connection comes first.
bool _is_asked(const Turn &turn) {
    return turn.asked.what == What::kMessage && turn.asked.type != kPoll && turn.asked.type != kAccept;
}

// The body with another id, where it has one.
std::string _with_id(const std::string &body, int id) {
    json parsed = id > 0 ? structure_of(body) : json();
    if (!parsed.is_object() || !parsed.contains("id")) {
        return body;
    }
    parsed["id"] = id;
    return dump(parsed);
}

}  // namespace

struct Replay::Connection {
    Connection(Descriptor descriptor, int which) : fd(std::move(descriptor)), number(which) {}
    [[nodiscard]] size_t index() const { return static_cast<size_t>(number) - 1; }
    const Descriptor fd;
    const int number;  // from 1; the record's conversations come in this order
    std::thread thread;
};

Replay::Replay(Journal &journal, std::vector<Conversation> record, Options options)
    : journal_(journal),
      record_(std::move(record)),
      options_(std::move(options)),
      listening_(bound_socket(SOCK_STREAM, options_.path)) {
    for (const Conversation &one : record_) {
        used_.emplace_back(one.turns.size(), false);
    }
    listen(listening_.get(), SOMAXCONN);
    acceptor_ = std::thread([this] { _accept_loop(); });
}

Replay::~Replay() {
    _stop();
}

void Replay::_stop() {
    if (!acceptor_.joinable()) {
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    unlink(options_.path.c_str());
    shutdown(listening_.get(), SHUT_RDWR);  // ends the wait in accept
    acceptor_.join();
    for (const Peer &peer : connections_) {  // nobody adds to them any more
        shutdown(peer->fd.get(), SHUT_RDWR);
        peer->thread.join();
    }
}

void Replay::_accept_loop() {
    for (int number = 1;; ++number) {
        Descriptor fd(accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const std::lock_guard lock(mutex_);
        if (stopping_ || !fd.ok()) {
            return;
        }
        const auto peer = std::make_shared<Connection>(std::move(fd), number);
        connections_.push_back(peer);
        peer->thread = std::thread([this, peer = peer.get()] { _serve(*peer); });
    }
}

void Replay::_serve(Connection &connection) {
    journal_.add("connect", {{"connection", connection.number}});
    if (connection.index() < record_.size()) {
        _play(connection, record_[connection.index()].turns.front(), 0);
    } else {
        _differs({"another connection", "", "connection " + std::to_string(connection.number)}, 0, 0);
        Spoken greeting;
        greeting.type = kAccept;
        greeting.body = R"({"errorcode":0,"result":0})";
        _send(connection, greeting, 0);
    }
    int type = 0;
    for (std::string body; _read(connection, type, body);) {
        if (type == kPoll) {
            _poll(connection, body);
            continue;
        }
        const Turn *const turn = _turn_for(connection, type, body);
        int id = 0;
        if (is_submit(type)) {
            const std::lock_guard lock(mutex_);
            id = next_id_++;
            requests_[id] = turn != nullptr ? turn->request : 0;
        }
        if (turn != nullptr) {
            _play(connection, *turn, id);
        } else {
            _refuse(connection, type + 1, 0, kNotInTheRecord);
        }
    }
    shutdown(connection.fd.get(), SHUT_RDWR);
    journal_.add("close", {{"connection", connection.number}});
}

bool Replay::_read(const Connection &connection, int &type, std::string &body) {
    std::string header(kHeaderSize, '\0');
    const bool whole = read_all(connection.fd.get(), header);
    const size_t length = whole ? decode_number(header.substr(4)) : 0;
    body.assign(length <= kLongestBody ? length : 0, '\0');
    if (!whole || !header.starts_with(kMagic) || length > kLongestBody ||
        !read_all(connection.fd.get(), body)) {
        if (!header.empty()) {
            journal_.add(
                "bad_message",
                {{"connection", connection.number}, {"from", "client"}, {"bytes", to_hex(header + body)}});
        }
        return false;
    }
    type = static_cast<int>(decode_number(header.substr(2, 2)));
    journal_.add("message", {{"connection", connection.number},
                             {"from", "client"},
                             {"type", type},
                             {"name", message_name(type)},
                             {"body", body}});
    return true;
}

void Replay::_differs(Difference difference, int connection, int seq) {
    const std::lock_guard lock(mutex_);
    if (verdict_.count++ == 0) {
        journal_.add("difference",
                     {{"where", difference.where}, {"then", difference.then}, {"now", difference.now}});
        verdict_.first = std::move(difference);
        verdict_.connection = connection;
        verdict_.seq = seq;
    }
}

// The turn of the record that this is, or the one that comes nearest; null: there is none.
const Turn *Replay::_turn_for(Connection &connection, int type, const std::string &body) {
    const std::string method = is_submit(type) ? method_of(body) : std::string();
    const bool known = connection.index() < record_.size();
    const Turn *expected = nullptr;
    bool fits = false;
    std::optional<Difference> difference;
    if (known) {
        const std::lock_guard lock(mutex_);
        const std::vector<Turn> &turns = record_[connection.index()].turns;
        std::vector<bool> &used = used_[connection.index()];
        for (size_t i = 0; i < turns.size() && expected == nullptr; ++i) {
            if (!used[i] && _is_asked(turns[i])) {
                expected = &turns[i];
                fits = expected->asked.type == type && expected->method == method;
                used[i] = fits;
                difference = matcher_.compare(expected->asked.type, expected->asked.body, type, body);
            }
        }
    }
    if (expected == nullptr) {
        difference = {"a message more", "", told(type, body)};
    }
    if (difference) {
        _differs(*difference, known ? record_[connection.index()].connection : 0,
                 expected != nullptr ? expected->asked.seq : 0);
    }
    return fits ? expected : _nearest(connection, type, method);
}

// The first turn with that type and method which nobody has asked for, then any; of the same connection
// first.
const Turn *Replay::_nearest(const Connection &connection, int type, const std::string &method) {
    const std::lock_guard lock(mutex_);
    const Turn *again = nullptr;
    for (const bool own : {true, false}) {
        for (size_t i = 0; i < record_.size(); ++i) {
            for (size_t k = 0; (i == connection.index()) == own && k < record_[i].turns.size(); ++k) {
                const Turn &turn = record_[i].turns[k];
                const bool alike = is_submit(type) ? is_submit(turn.asked.type) : turn.asked.type == type;
                if (!alike || turn.method != method) {
                    continue;
                }
                if (!used_[i][k]) {
                    used_[i][k] = true;
                    return &turn;
                }
                again = &turn;
            }
        }
    }
    return again;
}

// How the next poll for a request was answered; the last time, where it was asked for more often now.
const Turn *Replay::_next_poll(int request) {
    std::vector<const Turn *> polls;
    for (const Conversation &one : record_) {
        for (const Turn &turn : one.turns) {
            if (request != 0 && turn.asked.type == kPoll && turn.request == request) {
                polls.push_back(&turn);
            }
        }
    }
    const std::lock_guard lock(mutex_);
    size_t &next = polled_[request];
    const auto isLastWord = [](const Turn *turn) {
        return std::none_of(turn->answered.begin(), turn->answered.end(), is_pending);
    };
    if (options_.fast) {
        while (next + 1 < polls.size() && !isLastWord(polls[next])) {
            ++next;
        }
    }
    const bool over = next >= polls.size();
    if (polls.empty() || (over && isLastWord(polls.back()))) {
        return nullptr;
    }
    return over ? polls.back() : polls[next++];
}

void Replay::_poll(Connection &connection, const std::string &body) {
    const int id = number_in(body, "id", 0);
    int request = 0;
    {
        const std::lock_guard lock(mutex_);
        const auto found = requests_.find(id);
        request = found != requests_.end() ? found->second : 0;
    }
    if (const Turn *const turn = _next_poll(request)) {
        _play(connection, *turn, id);
    } else {
        _refuse(connection, kAnswer, id, kPending);
    }
}

void Replay::_refuse(Connection &connection, int type, int id, int code) {
    Spoken spoken;
    spoken.type = type;
    const json refusal{{"errorcode", code}};
    json answer{{"id", id}};
    answer.update(refusal);
    spoken.body = dump(type == kAnswer ? answer : refusal);
    _send(connection, spoken, 0);
}

void Replay::_play(Connection &connection, const Turn &turn, int id) {
    double last = turn.asked.t;
    for (const Spoken &spoken : turn.answered) {
        const double wait = options_.fast ? 0 : std::max(spoken.t - last, 0.0);
        last = spoken.t;
        pollfd gone{connection.fd.get(), POLLRDHUP, 0};
        if (wait > 0) {
            static_cast<void>(poll(&gone, 1, static_cast<int>(std::lround(wait * 1000))));
        }
        _send(connection, spoken, id);
    }
}

void Replay::_send(Connection &connection, const Spoken &spoken, int id) {
    if (spoken.what == What::kBytes) {
        journal_.add("bad_message",
                     {{"connection", connection.number}, {"from", "broker"}, {"bytes", to_hex(spoken.body)}});
        write_all(connection.fd.get(), spoken.body);
    } else if (spoken.what == What::kEnd) {
        shutdown(connection.fd.get(), SHUT_RDWR);
    } else {
        std::string body;
        {
            const std::lock_guard lock(mutex_);
            body = matcher_.translate(_with_id(spoken.body, id));
        }
        journal_.add(spoken.what == What::kNothing ? "no_reply" : "message",
                     {{"connection", connection.number},
                      {"from", "broker"},
                      {"type", spoken.type},
                      {"name", message_name(spoken.type)},
                      {"body", body}});
        if (spoken.what == What::kMessage) {
            write_all(connection.fd.get(), encode_frame(kMagic, spoken.type, body.size(), body));
        }
    }
}

Replay::Verdict Replay::finish() {
    _stop();
    for (size_t i = 0; i < record_.size(); ++i) {
        for (size_t k = 0; k < record_[i].turns.size(); ++k) {
            const Turn &turn = record_[i].turns[k];
            if (!used_[i][k] && _is_asked(turn)) {
                _differs({"a message less", told(turn.asked.type, turn.asked.body), ""},
                         record_[i].connection, turn.asked.seq);
            }
        }
    }
    return verdict_;
}

}  // namespace emulator
