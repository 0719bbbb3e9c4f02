#include "conversation.h"

#include <algorithm>
#include <map>
#include <utility>

#include "deep_json.h"
#include "wire.h"

namespace emulator {
namespace {

constexpr int kPendingCode = -3001;

// Builds the conversations record by record.
class Builder {
public:
    void take(const json &record) {
        const std::string kind = record.value("kind", "");
        if (!record.contains("connection") || !record.at("connection").is_number_integer()) {
            return;
        }
        const int connection = record.at("connection");
        if (kind == "connect") {
            _open(connection, record);
        } else if (kind == "message" || kind == "no_reply" || kind == "bad_message") {
            const bool client = record.value("from", kind == "bad_message" ? "client" : "broker") == "client";
            Conversation &conversation = _of(connection, record);
            client ? _asked(conversation, record) : _answered(conversation, record);
        } else if (kind == "close") {
            _ended(_of(connection, record), record);
            open_.erase(connection);
        }
    }

    std::vector<Conversation> done() { return std::move(all_); }

private:
    static Spoken _spoken(const json &record) {
        Spoken spoken;
        const std::string kind = record.at("kind");
        spoken.seq = record.value("seq", 0);
        spoken.t = record.value("t", 0.0);
        spoken.type = record.value("type", 0);
        spoken.body =
            record.contains("body_hex") ? from_hex(record.at("body_hex")) : record.value("body", "");
        spoken.faults = record.value("scripted", json::object());
        if (kind == "no_reply") {
            spoken.what = Spoken::What::kNothing;
        } else if (kind == "bad_message") {
            spoken.what = Spoken::What::kBytes;
            spoken.body = from_hex(record.value("bytes", ""));
        }
        return spoken;
    }

    Conversation &_open(int connection, const json &record) {
        open_[connection] = all_.size();
        Turn first;
        first.asked = _spoken(record);
        first.asked.type = kAccept;
        all_.push_back({connection, {std::move(first)}});
        return all_.back();
    }

    // A journal may begin in the middle.
    Conversation &_of(int connection, const json &record) {
        const auto found = open_.find(connection);
        return found == open_.end() ? _open(connection, record) : all_[found->second];
    }

    void _asked(Conversation &conversation, const json &record) {
        Turn turn;
        turn.asked = _spoken(record);
        if (turn.asked.what == Spoken::What::kMessage && is_submit(turn.asked.type)) {
            turn.method = method_of(turn.asked.body);
            turn.request = ++requests_;
            methods_[turn.request] = turn.method;
        } else if (turn.asked.what == Spoken::What::kMessage && turn.asked.type == kPoll) {
            const auto found = ids_.find(number_in(turn.asked.body, "id", 0));
            turn.request = found != ids_.end() ? found->second : 0;
            turn.method = methods_[turn.request];
        }
        conversation.turns.push_back(std::move(turn));
    }

    void _answered(Conversation &conversation, const json &record) {
        const Spoken spoken = _spoken(record);
        Turn *turn = &conversation.turns.back();
        if (spoken.type == kAnswer) {
            const int id = number_in(spoken.body, "id", 0);
            const auto polled =
                std::find_if(conversation.turns.rbegin(), conversation.turns.rend(), [&](const Turn &one) {
                    return one.asked.type == kPoll && one.answered.empty() &&
                           number_in(one.asked.body, "id", 0) == id;
                });
            turn = polled != conversation.turns.rend() ? &*polled : turn;
        } else if (is_submit(turn->asked.type) && turn->answered.empty()) {
            ids_[number_in(spoken.body, "id", 0)] = turn->request;
        }
        turn->answered.push_back(spoken);
    }

    // The emulator's journal does not say who closed: the broker does where that was scripted.
    void _ended(Conversation &conversation, const json &record) {
        const std::vector<Spoken> &last = conversation.turns.back().answered;
        const bool scripted = !last.empty() && (last.back().faults.value("close", false) ||
                                                last.back().faults.contains("close_after"));
        if (record.value("from", scripted ? "broker" : "client") == "broker") {
            Spoken end = _spoken(record);
            end.what = Spoken::What::kEnd;
            conversation.turns.back().answered.push_back(std::move(end));
        }
    }

    std::vector<Conversation> all_;
    std::map<int, size_t> open_;
    std::map<int, int> ids_;  // of the broker; numbers of requests
    std::map<int, std::string> methods_;
    int requests_ = 0;
};

}  // namespace

std::vector<Conversation> conversations(const std::vector<json> &records) {
    Builder builder;
    for (const json &record : records) {
        builder.take(record);
    }
    return builder.done();
}

bool is_submit(int type) {
    return type == kSubmit || type == kSubmitNoAccount;
}

bool is_pending(const Spoken &answer) {
    return answer.what == Spoken::What::kMessage && answer.type == kAnswer &&
           number_in(answer.body, "errorcode", kPendingCode) == kPendingCode;
}

std::string method_of(const std::string &body) {
    const json parsed = unfolded(structure_of(valid_utf8(body)));
    const json request = parsed.is_object() ? parsed.value("request", json()) : json();
    const json method = request.is_object() ? request.value("method", json()) : json();
    return method.is_string() ? method.get<std::string>() : std::string();
}

int number_in(const std::string &body, const char *member, int otherwise) {
    const json parsed = structure_of(valid_utf8(body));
    return parsed.is_object() && parsed.contains(member) && parsed.at(member).is_number_integer()
               ? parsed.at(member).get<int>()
               : otherwise;
}

std::string told(int type, const std::string &body) {
    return std::to_string(type) + ' ' + message_name(type) + (body.empty() ? "" : ' ' + valid_utf8(body));
}

}  // namespace emulator
