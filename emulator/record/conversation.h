// A journal as what the broker and its clients said to each other: by connection, and within it by turns. A
// turn is what a client said and what the broker said until the client spoke again; answers to polls belong
// to the poll that they answer.
#pragma once

#include <string>
#include <vector>

#include "journal.h"

namespace emulator {

/// What one side did.
struct Spoken {
    enum class What {
        kMessage,
        kNothing,  ///< a reply that never came
        kBytes,    ///< no message: `body` as it came
        kEnd       ///< the connection was closed
    };
    What what = What::kMessage;
    int seq = 0;   ///< in the journal
    double t = 0;  ///< seconds
    int type = 0;  ///< accept (16) for a new connection, which says nothing
    std::string body;
    json faults = json::object();  ///< that a scenario put in
};

struct Turn {
    Spoken asked;
    std::vector<Spoken> answered;
    std::string method;  ///< of the cloud request that is submitted, or polled for
    int request = 0;     ///< its number in the record, from 1; 0: none
};

struct Conversation {
    int connection = 0;       ///< in the journal
    std::vector<Turn> turns;  ///< the first is the connection itself
};

/// @param records  of a journal, in order; other kinds than those of the broker are passed over.
[[nodiscard]] std::vector<Conversation> conversations(const std::vector<json> &records);

/// Whether a message of that type submits a request to the cloud.
[[nodiscard]] bool is_submit(int type);
/// Whether an answer to a poll says that the cloud has not answered yet.
[[nodiscard]] bool is_pending(const Spoken &answer);

/// The method of the request in a body of a submit; "" where there is none.
[[nodiscard]] std::string method_of(const std::string &body);

/// A whole number that is a member of a body; otherwise `otherwise`.
[[nodiscard]] int number_in(const std::string &body, const char *member, int otherwise);

/// "64 submit {...}", for people.
[[nodiscard]] std::string told(int type, const std::string &body);

}  // namespace emulator
