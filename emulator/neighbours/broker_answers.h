// What the broker answers: the requests that wait for the cloud, the state of its link and the logic status.
// Safe to use from several threads.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include "broker_rules.h"
#include "cloud.h"
#include "journal.h"

namespace emulator {

class BrokerAnswers {
public:
    /// Journal and cloud must outlive it.
    /// @param scenario  its start values: logic, link, first_id, pending, reconnect_polls, reconnect_ms.
    BrokerAnswers(Journal &journal, Cloud &cloud, const json &scenario);

    /// @param effects  what the rules want of this answer (BrokerRules::effects).
    /// @return the answer's body; null where the message has none.
    [[nodiscard]] json reply(const ClientMessage &message, const json &effects);

    /// @return the method of the cloud request that a message carries or asks for; "" for others.
    [[nodiscard]] std::string method_of(const ClientMessage &message) const;

    /// @return the cloud's answer to the last greeting that a client gave.
    [[nodiscard]] std::string hello_answer();

    void forget_requests();  ///< As a broker that starts anew: their ids are unknown then.

    [[nodiscard]] int logic() const;
    void set_logic(int value);
    [[nodiscard]] int link() const;
    void set_link(int value);

private:
    struct Request {
        std::string method;
        std::string answer;
        int polls = 0;  // to be answered with "not yet" before the answer; -1 for ever
        std::chrono::steady_clock::time_point ready;
    };

    [[nodiscard]] json _submit(const ClientMessage &message, const json &effects);
    [[nodiscard]] json _poll(const ClientMessage &message, const json &effects);
    void _notify(const ClientMessage &message);
    [[nodiscard]] int _link_now();

    Journal &journal_;
    Cloud &cloud_;
    const int pending_;
    const int reconnect_polls_;
    const std::chrono::milliseconds reconnect_time_;

    mutable std::mutex mutex_;
    // All below: under mutex_.
    int logic_;
    int link_;
    int link_polls_ = 0;                                // queries for which a reconnect still shows
    std::chrono::steady_clock::time_point link_ready_;  // and the time until which it does
    int next_id_;
    std::map<int, Request> requests_;
};

}  // namespace emulator
