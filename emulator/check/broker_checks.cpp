// A broker, as its clients meet it: greeting, status, requests, and clients that do not keep to the rules.
#include <chrono>
#include <memory>
#include <set>
#include <thread>

#include "broker.h"
#include "checks.h"
#include "cloud.h"
#include "peer.h"
#include "process.h"
#include "wire.h"

namespace emulator::check {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

constexpr int kPending = -3001;
constexpr int kPolls = 20;
constexpr std::chrono::milliseconds kBetweenPolls{500};
constexpr int kAccountMode = 1;
constexpr int kEventAccount = 10;
constexpr int kEventNoAccount = 11;
constexpr const char *kRequest = R"({"method":"myTestConnection"})";

constexpr const char *kStream =
    "A stream has no borders all the same: either side reads until the length is there.";
constexpr const char *kMany =
    "Any number of clients may be connected at once: each is answered, or greeted with `\"result\"` 1.";
constexpr const char *kHostile =
    "A wrong magic, a length beyond what the broker takes, a body that is no JSON, a type that it does not "
    "know or a "
    "client that ends in the middle of a message: it may answer with an error or close that connection, and "
    "no other "
    "connection notices.";
constexpr const char *kModes = "64 asks in account mode, 68 in no-account mode.";

// The broker that is checked, as long as it lives.
class Part {
public:
    explicit Part(const Neighbour &broker) : path_(broker.socket.empty() ? kBrokerPath : broker.socket) {
        if (!broker.command.empty()) {
            process_.emplace(broker.command);
        } else if (broker.socket.empty()) {
            own_ = std::make_unique<Own>();
        }
    }
    /// A client that was greeted.
    Peer client() {
        Peer peer = stranger();
        const Frame greeting = peer.receive();
        require(greeting.type == kAccept, "the greeting has type " + std::to_string(greeting.type));
        require(greeting.member("errorcode") == 0 && greeting.member("result").is_number() &&
                    greeting.member("result") != 1,
                "the greeting refuses: " + greeting.body);
        return peer;
    }
    /// A client that is not greeted yet.
    [[nodiscard]] Peer stranger() {
        return Peer::to(path_, [this] { return end(); });
    }
    /// Finds out whether others are served still.
    void serve_others() {
        const Frame mode = client().ask(kLogic, "");
        require(mode.member("status").is_number_integer(), "another client is not served: " + mode.body);
    }
    [[nodiscard]] std::string end() {
        return process_ && !process_->running()
                   ? "the broker has ended with status " + std::to_string(process_->wait().status) + ": " +
                         process_->err()
                   : "";
    }

private:
    struct Own {
        Journal journal;
        Cloud cloud;
        Broker broker{journal, cloud};
    };

    std::string path_;
    std::optional<Process> process_;
    std::unique_ptr<Own> own_;
};

int _status(Peer &peer, int type) {
    const Frame answer = peer.ask(type, "");
    require(answer.member("errorcode") == 0 && answer.member("status").is_number_integer(),
            "the answer is " + answer.body);
    return answer.member("status");
}

std::string _submission(const std::string &request, int timeoutMs = 5000) {
    return dump({{"request", request}, {"timeout", timeoutMs}, {"flag", 1}});
}

int _submit(Peer &peer, int type, const std::string &request = kRequest) {
    const Frame answer = peer.ask(type, _submission(request));
    require(answer.member("errorcode") == 0, "the request was not taken: " + answer.body);
    require(answer.member("id").is_number_integer() && answer.member("id") > 0,
            "the id is none: " + answer.body);
    return answer.member("id");
}

Frame _poll(Peer &peer, int id) {
    Frame answer = peer.ask(kPoll, dump({{"id", id}}));
    require(answer.type == kAnswer, "the answer to 66 has type " + std::to_string(answer.type));
    require(answer.member("id") == id, "the answer for id " + std::to_string(id) + " is " + answer.body);
    return answer;
}

bool _is_pending(const Frame &answer) {
    return !answer.member("errorcode").is_number() || answer.member("errorcode") == kPending;
}

// @throws Skipped  the broker has no answer of the cloud.
Frame _answer(Peer &peer, int id) {
    for (int i = 0; i < kPolls; ++i) {
        Frame answer = _poll(peer, id);
        if (!_is_pending(answer)) {
            return answer;
        }
        std::this_thread::sleep_for(kBetweenPolls);
    }
    throw Skipped("the broker got no answer of the cloud in time");
}

void _greets(Part &part) {
    const Peer first = part.client();
    const Peer second = part.client();
}

void _frames(Part &part) {
    Peer peer = part.client();
    for (const int type : {kLink, kLogic}) {
        const Frame answer = peer.ask(type, "");
        require(answer.body.find('\0') == std::string::npos, "a body holds a NUL");
        require(answer.member("errorcode").is_number_integer(),
                "a body is no JSON with \"errorcode\": " + answer.body);
    }
}

void _tells_link(Part &part) {
    Peer peer = part.client();
    static_cast<void>(_status(peer, kLink));
}

void _tells_mode(Part &part) {
    Peer peer = part.client();
    static_cast<void>(_status(peer, kLogic));
}

void _changes_mode(Part &part) {
    Peer peer = part.client();
    const bool before = _status(peer, kLogic) == kAccountMode;
    for (const bool account : {!before, before}) {  // it ends as it was
        const int event = account ? kEventAccount : kEventNoAccount;
        const Frame taken = peer.ask(kNotify, dump({{"event", event}}));
        require(taken.member("errorcode") == 0,
                "event " + std::to_string(event) + " was not taken: " + taken.body);
        require((_status(peer, kLogic) == kAccountMode) == account,
                "event " + std::to_string(event) + " did not change the mode");
    }
}

void _takes_requests(Part &part) {
    Peer peer = part.client();
    for (const int type : {kSubmit, kSubmitNoAccount}) {
        static_cast<void>(_poll(peer, _submit(peer, type)));
    }
}

void _hands_out_answers(Part &part) {
    Peer peer = part.client();
    const Frame answer = _answer(peer, _submit(peer, kSubmitNoAccount));
    require(answer.member("errorcode") != 0 || answer.member("response").is_string(),
            "there is no text: " + answer.body);
}

void _tells_ids_apart(Part &part) {
    Peer first = part.client();
    Peer second = part.client();
    std::set<int> ids;
    for (int i = 0; i < 10; ++i) {
        const int id = _submit(i % 2 == 0 ? first : second, kSubmitNoAccount);
        require(ids.insert(id).second, "id " + std::to_string(id) + " was given twice");
    }
    for (auto id = ids.rbegin(); id != ids.rend(); ++id) {
        static_cast<void>(_poll(first, *id));
    }
}

void _knows_no_other_ids(Part &part) {
    Peer peer = part.client();
    const int known = _submit(peer, kSubmitNoAccount);
    for (const int id : {known + 100000, 2147483647, 0, -1}) {
        const Frame answer = _poll(peer, id);
        require(_is_pending(answer) || answer.member("errorcode") != 0,
                "id " + std::to_string(id) + " was never given, and its answer is " + answer.body);
    }
}

void _takes_pieces(Part &part) {
    Peer peer = part.client();
    peer.send_pieces("\xA1\xB2\x00\x62\x00\x00\x00\x00"sv, 1);
    require(peer.receive().member("status").is_number_integer(), "a header in eight pieces is not answered");
    const std::string body = _submission(kRequest);
    peer.send_pieces(encode_frame(kMagic, kSubmitNoAccount, body.size(), body), 7);
    require(peer.receive().member("id").is_number_integer(), "a request in many pieces is not answered");
}

void _takes_several(Part &part) {
    Peer peer = part.client();
    std::string frames;
    for (const int type : {kLogic, kLink, kLogic}) {
        frames += encode_frame(kMagic, type, 0, "");
    }
    const std::string body = _submission(kRequest);
    peer.send_bytes(frames + encode_frame(kMagic, kSubmitNoAccount, body.size(), body));
    for (int i = 0; i < 3; ++i) {
        require(peer.receive().member("status").is_number_integer(),
                "a question behind another is not answered");
    }
    require(peer.receive().member("id").is_number_integer(),
            "answers do not come in the order of the questions");
}

void _takes_large_texts(Part &part) {
    Peer peer = part.client();
    const std::string request = dump(
        {{"method", "myTestConnection"}, {"params", {{"text", letters(60000, 16) + "\"\\\n\xC3\xA9/"}}}});
    static_cast<void>(_poll(peer, _submit(peer, kSubmitNoAccount, request)));
}

void _rejects_below_zero(Part &part) {
    Peer peer = part.client();
    const Frame answer = peer.ask(kSubmitNoAccount, R"({"timeout":5000,"flag":1})");
    require(answer.member("errorcode").is_number_integer() && answer.member("errorcode") < 0,
            "a submission without a request is answered with " + answer.body);
}

void _forgets_the_impatient(Part &part) {
    for (int i = 0; i < 20; ++i) {
        Peer peer = part.client();
        static_cast<void>(_submit(peer, kSubmitNoAccount));
    }
    Peer peer = part.client();
    const Frame taken = peer.ask(kSubmitNoAccount, _submission(kRequest, 1));
    static_cast<void>(
        _poll(peer, taken.member("id").is_number_integer() ? taken.member("id").get<int>() : -1));
}

void _serves_a_hundred(Part &part) {
    constexpr int kClients = 100;
    std::vector<Peer> peers;
    for (int i = 0; i < kClients; ++i) {
        Peer peer = part.stranger();
        const Frame greeting = peer.receive();
        if (greeting.member("errorcode") == 0 && greeting.member("result") != 1) {
            peers.push_back(std::move(peer));
        } else {
            require(greeting.type == kAccept,
                    "client " + std::to_string(i) + " is greeted with " + greeting.body);
        }
    }
    require(!peers.empty(), "none of a hundred clients is taken");
    for (const Peer &peer : peers) {
        peer.send(kLogic, "");
    }
    for (Peer &peer : peers) {
        require(peer.receive().member("status").is_number_integer(),
                "one of a hundred clients is not answered");
    }
}

void _registers(Part &part) {
    Peer peer = part.client();
    const Frame answer = peer.ask(kRegister, R"({"hellocloud":1})");
    require(answer.member("errorcode") == 0, "the service is refused: " + answer.body);
    constexpr int kMomentMs = 300;
    const std::optional<Frame> asked = peer.maybe(kMomentMs);
    require(!asked || asked->type == kAskHello || asked->type == kCloudRequest || asked->type == kHelloAnswer,
            "a service is sent a message of type " + std::to_string(asked ? asked->type : 0));
}

struct Hostile {
    const char *name;
    std::string bytes;
};

const std::vector<Hostile> &_hostile() {
    static const std::vector<Hostile> kRows{
        {"magic", encode_frame("\xB2\xA1", kLogic, 0, "")},
        {"text", "GET / HTTP/1.1\r\n\r\n"},
        {"huge-length", encode_frame(kMagic, kSubmit, 0xFFFFFFFF, "{")},
        {"signed-length", encode_frame(kMagic, kSubmit, 0x7FFFFFFF, "{")},
        {"no-json", encode_frame(kMagic, kSubmitNoAccount, 5, "{\"a\":")},
        {"other-types", encode_frame(kMagic, kSubmitNoAccount, 30, R"({"request":5,"timeout":"now" })")},
        {"bad-id", encode_frame(kMagic, kPoll, 12, R"({"id":"one"})")},
        {"no-body", encode_frame(kMagic, kPoll, 0, "")},
        {"unknown-type", encode_frame(kMagic, 9999, 2, "{}")},
        {"half-header", "\xA1\xB2\x00"s},
        {"half-body", encode_frame(kMagic, kSubmit, 100, "{\"request\":")},
    };
    return kRows;
}

void _outlives(Part &part, const Hostile &row) {
    Peer other = part.client();
    {
        Peer peer = part.client();
        peer.send_bytes(row.bytes);
        require(other.ask(kLogic, "").member("status").is_number_integer(),
                "a client beside it is not served");
        peer.finish();  // in the middle of a message
    }
    require(other.ask(kLogic, "").member("status").is_number_integer(), "a client that stayed is not served");
    part.serve_others();
}

}  // namespace

Checks broker_checks(const Neighbour &broker) {
    const auto row = [&broker](std::string name, const char *sentence, std::function<void(Part &)> work) {
        return Check{"broker/" + std::move(name), kProtocolPage, sentence, [broker, work = std::move(work)] {
                         Part part(broker);
                         try {
                             work(part);
                             part.serve_others();
                         } catch (const Failed &failure) {
                             const std::string end = part.end();
                             throw Failed(failure.what() + (end.empty() ? end : "\n" + end));
                         }
                     }};
    };
    Checks checks{
        row("greeting", "The broker sends it at once, unasked.", _greets),
        row("frames", "The body is JSON text without a terminating NUL.", _frames),
        row("link", "96: `\"status\"` 2: linked to the cloud. 4: reconnecting.", _tells_link),
        row("mode", "98: `\"status\"` 1: account mode. Any other: no-account mode.", _tells_mode),
        row("events", "10: account mode. 11: no-account mode.", _changes_mode),
        row("submit", kModes, _takes_requests),
        row("answer", "Any other one: the request is over, and `\"response\"` is the cloud's text",
            _hands_out_answers),
        row("ids", "there the `\"id\"` tells which request is meant.", _tells_ids_apart),
        row("unknown-id",
            "An id that the broker does not know is answered as not yet, or with an error, under that id.",
            _knows_no_other_ids),
        row("pieces", kStream, _takes_pieces),
        row("several", "an answer is the next message on the connection.", _takes_several),
        row("large", "`\"request\"` is the JSON-RPC text as a string", _takes_large_texts),
        row("reject", "a broker rejects with negative codes.", _rejects_below_zero),
        row("impatient", "There is no cancel message. A client that has waited long enough stops asking.",
            _forgets_the_impatient),
        row("hundred", kMany, _serves_a_hundred),
        row("register",
            "A connection that sends 32 and is answered with `\"errorcode\"` 0 belongs to the device's "
            "service.",
            _registers),
    };
    for (const Hostile &hostile : _hostile()) {
        checks.push_back(row(std::string("hostile/") + hostile.name, kHostile,
                             [&hostile](Part &part) { _outlives(part, hostile); }));
    }
    return checks;
}

}  // namespace emulator::check
