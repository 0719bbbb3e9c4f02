// The rules of a scenario: which message of a client meets which fault. Safe to use from several threads.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "journal.h"

namespace emulator {

/// What a client sent, or its arrival (kAccept).
struct ClientMessage {
    int connection = 0;
    int type = 0;
    std::string body;
    std::string method;  ///< of the cloud request that it carries or asks for; "" for others

    /// @return its body; discarded when that is no JSON.
    [[nodiscard]] json parsed() const;
};

class BrokerRules {
public:
    /// Replaces all rules; counters of nth begin anew.
    /// @throws std::invalid_argument  a rule has a name or a value that no rule has.
    void replace(const json &rules);

    /// Adds one while clients are at work; its nth counts from now on.
    /// @return the rule as a scenario would have it: nth counted from the first message.
    /// @throws std::invalid_argument  as replace().
    json add(const json &rule);

    /// Counts the message.
    /// @return the members of "do" of all rules that fit it, in one object; later rules replace members of
    ///     earlier ones.
    [[nodiscard]] json effects(const ClientMessage &message);

private:
    struct Rule {
        json when;
        int seen = 0;
    };

    std::mutex mutex_;
    // All below: under mutex_.
    std::vector<Rule> rules_;
    std::map<std::pair<int, std::string>, int> handled_;  // type and method: how many there were
};

}  // namespace emulator
