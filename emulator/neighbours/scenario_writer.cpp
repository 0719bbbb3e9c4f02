#include "scenario_writer.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include "cloud.h"
#include "deep_json.h"
#include "wire.h"

namespace emulator {
namespace {

constexpr double kSlow = 0.1;      // seconds after which a reply counts as a late one
constexpr int kWhole = 1U << 20U;  // bytes; longer than any reply
constexpr int kLinkUp = 2;

using What = Spoken::What;

// A request to the cloud, and what became of it.
struct Request {
    json asked;          // null: not JSON
    std::string answer;  // text, "" none
    int pending = 0;     // polls before the answer; -1: it never came
    int code = 0;        // of the broker with the answer
};

// Of every request by its number in the record.
std::map<int, Request> _requests(const std::vector<Conversation> &record) {
    std::map<int, Request> requests;
    for (const Conversation &one : record) {
        for (const Turn &turn : one.turns) {
            if (is_submit(turn.asked.type)) {
                const json body = structure_of(valid_utf8(turn.asked.body));
                Request &request = requests[turn.request];
                request.asked =
                    body.is_object() && body.contains("request") ? unfolded(body.at("request")) : json();
                request.pending = -1;
            }
            if (turn.asked.type != kPoll || turn.request == 0 || turn.answered.empty()) {
                continue;
            }
            Request &request = requests[turn.request];
            const Spoken &reply = turn.answered.front();
            const json body = structure_of(valid_utf8(reply.body));
            if (reply.type == kAnswer && !is_pending(reply) && body.is_object() && request.answer.empty()) {
                const json response = body.value("response", json());
                request.answer = response.is_string() ? response.get<std::string>() : "";
                request.code = body.value("errorcode", 0);
                request.pending = -request.pending - 1;
            } else if (request.answer.empty()) {
                --request.pending;
            }
        }
    }
    for (auto &[number, request] : requests) {
        request.pending = std::max(request.pending, -1);
    }
    return requests;
}

json _result_of(const Request &request) {
    const json answer = structure_of(request.answer);
    const bool good = answer.is_object() && answer.value("error_code", json(1)) == 0;
    return good ? answer.value("result", json::object()) : json();
}

json _parameter(const Request &request, const char *name) {
    const json params = request.asked.is_object() ? request.asked.value("params", json()) : json();
    return params.is_object() ? params.value(name, json()) : json();
}

// The cloud's document: what the answers tell of it. A member that no cloud can have is left out.
class Model {
public:
    void learn(const std::string &method, const Request &request) {
        const json result = _result_of(request);
        if (!result.is_object()) {
            return;
        }
        const json name = _parameter(request, "cloudUserName");
        const json password = _parameter(request, "cloudPassword");
        if (name.is_string() && password.is_string()) {
            accounts_[name.get<std::string>()] = password;
        }
        const json owner = name.is_string() ? name : _parameter(request, "ownerAccount");
        if (method == "bindDevice") {
            bound_ = true;
        } else if (!bound_ && owner.is_string()) {  // it had been bound before
            _put("device", {{"owner", owner}});
            bound_ = true;
        }
        if (method == "getDeviceTokenWithServices") {
            _put("token", result);
        } else if (method == "getIntlFwList") {
            _put("firmware", result.value("fwList", json::array()));
        } else if (structure_of(Cloud().answer(dump({{"method", method}}))).value("error_code", 0) ==
                   kCloudUnknownMethod) {
            json methods = document_.value("methods", json::object());
            methods[method] = result;
            _put("methods", methods);
        }
    }

    json document() {
        json accounts = json::array();
        for (const auto &[name, password] : accounts_) {
            accounts.push_back({{"name", name}, {"password", password}});
        }
        if (!accounts.empty()) {
            _put("accounts", accounts);
        }
        return document_;
    }

private:
    void _put(const char *member, const json &value) {
        try {
            static_cast<void>(Cloud(json{{member, value}}));
            document_[member] = value;
        } catch (const std::invalid_argument &) {  // an odd answer: a rule will give it
        }
    }

    json document_ = json::object();
    std::map<std::string, json> accounts_;
    bool bound_ = false;
};

// Writes the rules, turn by turn, and keeps the state that the emulator would have.
class Writer {
public:
    Writer(const std::map<int, Request> &requests, const json &cloud)
        : requests_(requests), cloud_(Cloud(cloud).model()) {}

    void take(int connection, const Turn &turn) {
        json effects = json::object();
        size_t replies = 1;
        if (turn.asked.what != What::kMessage && turn.asked.type != kAccept) {
            return;  // what is no message closes the connection by itself
        }
        if (turn.asked.type == kCloudResponse || turn.asked.type == kHello) {
            replies = 0;
        } else if (turn.answered.empty() || turn.answered.front().what == What::kNothing) {
            effects["silence"] = true;
        } else if (turn.answered.front().what == What::kEnd) {
            effects["close"] = true;
        } else if (turn.answered.front().what == What::kBytes) {
            effects["garbage_hex"] = to_hex(turn.answered.front().body);
        } else {
            effects = _reply_effects(turn);
            const double late = turn.answered.front().t - turn.asked.t;
            if (late >= kSlow && turn.asked.type != kAccept) {
                effects["delay_ms"] = static_cast<int>(std::lround(late * 1000));
            }
        }
        for (size_t i = replies; i < turn.answered.size(); ++i) {
            _follow(effects, turn.answered[i]);
        }
        _add_rule(connection, turn, effects);
    }

    json rules = json::array();
    json first_logic;
    json first_id;

private:
    json _reply_effects(const Turn &turn) {
        const Spoken &reply = turn.answered.front();
        const json body = structure_of(valid_utf8(reply.body));
        const int code = number_in(reply.body, "errorcode", 0);
        switch (turn.asked.type) {
            case kSubmit:
            case kSubmitNoAccount:
                first_id = first_id.is_null() && code == 0 ? json(number_in(reply.body, "id", 1)) : first_id;
                return code != 0 ? json{{"refuse", code}} : _request_effects(requests_.at(turn.request));
            case kPoll:
                return is_pending(reply) || code == 0
                           ? json::object()
                           : json{{"errorcode", code},
                                  {"answer",
                                   turn.request != 0 ? requests_.at(turn.request).answer : std::string()}};
            case kLogic:
                first_logic = first_logic.is_null() ? json(number_in(reply.body, "status", 0)) : first_logic;
                logic_ = logic_ < 0 ? first_logic.get<int>() : logic_;
                return _unless(body, {{"errorcode", 0}, {"status", logic_}}, reply);
            case kLink:
                return _unless(body, {{"errorcode", 0}, {"status", kLinkUp}}, reply);
            case kAccept:
                return _unless(body, {{"errorcode", 0}, {"result", 0}}, reply);
            case kNotify:
                if (const int event = number_in(turn.asked.body, "event", 0);
                    code == 0 && (event == 10 || event == 11)) {
                    logic_ = event == 10 ? 1 : 0;
                }
                return _unless(body, {{"errorcode", 0}}, reply);
            default:
                return _unless(body, {{"errorcode", 0}}, reply);
        }
    }

    static json _unless(const json &body, const json &expected, const Spoken &reply) {
        return body == expected ? json::object() : json{{"body", valid_utf8(reply.body)}};
    }

    // Nothing where the cloud says the same by itself; its state goes on only then.
    json _request_effects(const Request &request) {
        json effects = json::object();
        if (request.pending != 0) {
            effects["pending"] = request.pending;
        }
        json own = request.asked;
        if (own.is_object() && _parameter(request, "deviceId").is_string()) {
            own["params"]["deviceId"] = cloud_.at("device").at("deviceId");
        }
        Cloud cloud(cloud_);
        if (request.pending >= 0 && structure_of(cloud.answer(dump(own))) == structure_of(request.answer)) {
            cloud_ = cloud.model();
        } else {
            effects["answer"] = request.answer;
        }
        return effects;
    }

    static void _follow(json &effects, const Spoken &spoken) {
        if (spoken.what == What::kEnd) {
            effects["close_after"] = kWhole;
        } else if (spoken.what == What::kMessage) {
            effects["then"].push_back({{"type", spoken.type}, {"body", valid_utf8(spoken.body)}});
        }
    }

    void _add_rule(int connection, const Turn &turn, const json &effects) {
        const int type = turn.asked.type;
        const bool byMethod = is_submit(type) || type == kPoll;
        const std::string on = is_submit(type) ? "request" : message_name(type);
        const int nth = ++seen_[{on, connection, turn.method}];
        if (effects.empty()) {
            return;
        }
        json rule{{"on", on}, {"connection", connection}};
        if (byMethod) {
            rule["method"] = turn.method;
        }
        rule["nth"] = nth;
        rule["do"] = effects;
        rules.push_back(std::move(rule));
    }

    const std::map<int, Request> &requests_;
    json cloud_;
    int logic_ = -1;
    std::map<std::tuple<std::string, int, std::string>, int> seen_;
};

}  // namespace

Documents documents_of(const std::vector<Conversation> &record) {
    const std::map<int, Request> requests = _requests(record);
    Model model;
    for (const Conversation &one : record) {
        for (const Turn &turn : one.turns) {
            if (is_submit(turn.asked.type)) {
                model.learn(turn.method, requests.at(turn.request));
            }
        }
    }
    Documents documents{json::object(), model.document()};
    Writer writer(requests, documents.cloud);
    for (size_t i = 0; i < record.size(); ++i) {
        for (const Turn &turn : record[i].turns) {
            writer.take(static_cast<int>(i) + 1, turn);
        }
    }
    documents.scenario["description"] = "The conversation of a record.";
    if (writer.first_logic.is_number()) {
        documents.scenario["logic"] = writer.first_logic;
    }
    if (writer.first_id.is_number()) {
        documents.scenario["first_id"] = writer.first_id;
    }
    documents.scenario["rules"] = writer.rules;
    return documents;
}

}  // namespace emulator
