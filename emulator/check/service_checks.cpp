// The device's registered service, as the broker meets it: registration, the greeting of the cloud, requests.
#include <sys/socket.h>

#include <array>
#include <optional>

#include "broker.h"
#include "checks.h"
#include "peer.h"
#include "process.h"
#include "unix_socket.h"
#include "wire.h"

namespace emulator::check {
namespace {

constexpr int kMomentMs = 500;
constexpr const char *kTaken = R"({"errorcode":0})";
constexpr const char *kGreeting = R"({"errorcode":0,"result":0})";
constexpr const char *kCloudTalk = R"({"method":"conformance","params":{}})";
constexpr std::array kHelloKeys{"kcspVer", "deviceId",    "cloudUserName", "deviceName", "alias", "deviceMac",
                                "hwId",    "deviceModel", "deviceHwVer",   "fwId",       "oemId", "fwVer"};

constexpr const char *kBelongs =
    "A connection that sends 32 and is answered with `\"errorcode\"` 0 belongs to the device's service.";
constexpr const char *kHelloText =
    "The client answers with 129, whose `\"response\"` is this request as text, keys in this order, unknown "
    "values as "
    "empty strings:";
constexpr const char *kResponds =
    "112 is a request from the cloud, as text in `\"request\"`; 113 is what the service makes of it.";
constexpr const char *kDropped = "An answer that lacks any of these is dropped. It is not answered.";

// The service that is checked, and the broker's end of its connection.
class Part {
public:
    explicit Part(const Neighbour &service) : listening_(bound_socket(SOCK_STREAM, kBrokerPath)) {
        listen(listening_.get(), SOMAXCONN);
        process_.emplace(service.command);
    }
    [[nodiscard]] Peer client() const { return Peer::of(listening_); }
    /// Greets its clients and takes the one that registers itself, which is then answered.
    Peer registered(const std::string &answer = kTaken) {
        for (;;) {
            Peer peer = client();
            peer.send(kAccept, kGreeting);
            const Frame first = peer.receive();
            if (first.type == kRegister) {
                hello_ = first.member("hellocloud");
                peer.send(kRegister + 1, answer);
                return peer;
            }
            peer.send(first.type + 1, R"({"errorcode":0,"status":1})");
        }
    }
    /// What it said of itself: 1 where it can greet the cloud.
    [[nodiscard]] const json &hello() const { return hello_; }
    [[nodiscard]] std::string end() {
        return process_->running() ? ""
                                   : "the service has ended with status " +
                                         std::to_string(process_->wait().status) + ": " + process_->err();
    }

private:
    Descriptor listening_;
    std::optional<Process> process_;
    json hello_;
};

void _push(Peer &peer, const std::string &request) {
    peer.send(kCloudRequest, dump({{"request", request}}));
}

void _expect_response(Peer &peer) {
    const Frame response = peer.receive();
    require(response.type == kCloudResponse, "the answer to 112 has type " + std::to_string(response.type));
    require(response.member("errorcode").is_number_integer() && response.member("response").is_string(),
            "the answer to 112 is " + response.body);
}

void _registers(Part &part) {
    const Peer peer = part.registered();
    require(part.hello() == 0 || part.hello() == 1, "its \"hellocloud\" is " + dump(part.hello()));
}

void _waits_for_the_greeting(Part &part) {
    Peer peer = part.client();
    const std::optional<Frame> early = peer.maybe(kMomentMs);
    require(!early, "it sends before it is greeted");
    peer.send(kAccept, kGreeting);
    static_cast<void>(peer.receive());
}

void _leaves_when_refused(Part &part, const char *greeting) {
    Peer peer = part.client();
    peer.send(kAccept, greeting);
    require(peer.closes(), "it stays connected");
}

Frame _hello(Part &part, Peer &peer) {
    if (part.hello() != 1) {
        throw Skipped("the service does not greet the cloud");
    }
    peer.send(kAskHello, "");
    const Frame hello = peer.receive();
    require(hello.type == kHello, "the answer to 128 has type " + std::to_string(hello.type));
    return hello;
}

void _greets_the_cloud(Part &part) {
    Peer peer = part.registered();
    const Frame hello = _hello(part, peer);
    const json text = hello.member("response");
    require(text.is_string(), "\"response\" of 129 is no text");
    const json request = json::parse(text.get<std::string>(), nullptr, false);
    require(request.is_object() && request.value("method", "") == "helloCloud" && request.contains("params"),
            "the greeting is " + dump(text));
    size_t at = 0;
    for (const auto &[key, value] : request.at("params").items()) {
        require(at < kHelloKeys.size() && key == kHelloKeys.at(at),
                "key " + std::to_string(at + 1) + " is " + key);
        require(value.is_string(), key + " is no text");
        ++at;
    }
    require(at == kHelloKeys.size(), "the greeting has " + std::to_string(at) + " keys");
}

void _keeps_quiet(Part &part, const std::string &answer) {
    Peer peer = part.registered();
    peer.send(kHelloAnswer, answer);
    _push(peer, kCloudTalk);
    _expect_response(peer);  // the next message: the 34 before it got none
}

std::string _cloud_answer(const json &result) {
    return dump({{"errorcode", 0}, {"response", dump({{"error_code", 0}, {"result", result}})}});
}

void _takes_the_clouds_answer(Part &part) {
    _keeps_quiet(part, _cloud_answer({{"kcspStatus", 1},
                                      {"fwDlPage", ""},
                                      {"kcspInfo", ""},
                                      {"stopConnect", 0},
                                      {"reconnectTime", 0}}));
}

void _drops_half_an_answer(Part &part) {
    _keeps_quiet(part, _cloud_answer({{"kcspStatus", 1}}));
}

void _responds(Part &part) {
    Peer peer = part.registered();
    for (int i = 0; i < 3; ++i) {
        _push(peer, kCloudTalk);
        _expect_response(peer);
    }
}

void _responds_to_large_ones(Part &part) {
    Peer peer = part.registered();
    _push(peer,
          dump({{"method", "conformance"}, {"params", {{"text", letters(60000, 17) + "\"\\\n\xC3\xA9"}}}}));
    _expect_response(peer);
}

void _passes_over_what_is_no_request(Part &part) {
    Peer peer = part.registered();
    peer.send(kCloudRequest, R"({"other":1})");
    peer.send(kCloudRequest, R"({"request":1})");
    _push(peer, kCloudTalk);
    _expect_response(peer);
    require(!peer.maybe(kMomentMs), "a 112 without a text got an answer");
}

void _reads_pieces(Part &part) {
    Peer peer = part.registered();
    const std::string body = dump({{"request", kCloudTalk}});
    peer.send_pieces(encode_frame(kMagic, kCloudRequest, body.size(), body), 1);
    _expect_response(peer);
}

void _reads_several(Part &part) {
    Peer peer = part.registered();
    const std::string body = dump({{"request", kCloudTalk}});
    const std::string frame = encode_frame(kMagic, kCloudRequest, body.size(), body);
    peer.send_bytes(frame + frame);
    _expect_response(peer);
    _expect_response(peer);
}

}  // namespace

Checks service_checks(const Neighbour &service) {
    const auto row = [&service](const char *name, const char *sentence, std::function<void(Part &)> work) {
        return Check{std::string("service/") + name, kProtocolPage, sentence,
                     [service, work = std::move(work)] {
                         Part part(service);
                         try {
                             work(part);
                         } catch (const Failed &failure) {
                             const std::string end = part.end();
                             throw Failed(failure.what() + (end.empty() ? end : "\n" + end));
                         }
                     }};
    };
    constexpr const char *kRefusal = "After a refusal the client closes.";
    const auto refused = [](const char *greeting) {
        return [greeting](Part &part) { _leaves_when_refused(part, greeting); };
    };
    return {
        row("register", kBelongs, _registers),
        row("waits", "Any other number: the client may begin.", _waits_for_the_greeting),
        row("refused", kRefusal, refused(R"({"errorcode":-1,"result":0})")),
        row("full", kRefusal, refused(R"({"errorcode":0,"result":1})")),
        row("no-result", kRefusal, refused(R"({"errorcode":0})")),
        row("hello", kHelloText, _greets_the_cloud),
        row("cloud-answer", kDropped, _takes_the_clouds_answer),
        row("half-answer", kDropped, _drops_half_an_answer),
        row("request", kResponds, _responds),
        row("large", kResponds, _responds_to_large_ones),
        row("no-request", "A 112 without a `\"request\"` text gets no answer.",
            _passes_over_what_is_no_request),
        row("pieces", "A stream has no borders all the same: either side reads until the length is there.",
            _reads_pieces),
        row("several", "A stream has no borders all the same: either side reads until the length is there.",
            _reads_several)};
}

}  // namespace emulator::check
