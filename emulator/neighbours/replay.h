// A broker that answers as a record has it: each connection is the next one of the record, each message of a
// client is looked for in it, and is answered as it was then. A message that differs is counted; it gets the
// answer to the nearest message of the same type and method, or an error where there is none.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "conversation.h"
#include "descriptor.h"
#include "journal.h"
#include "matcher.h"

namespace emulator {

class Replay {
public:
    struct Options {
        bool fast = false;  ///< answers at once; "not yet" only where nothing else ever came
        std::string path;   ///< of the socket
    };
    /// Listens at once. The journal must outlive it.
    /// @throws std::system_error  the socket cannot be had.
    Replay(Journal &journal, std::vector<Conversation> record, Options options);
    ~Replay();
    Replay(const Replay &) = delete;
    Replay &operator=(const Replay &) = delete;

    /// The first difference, and how many there are.
    struct Verdict {
        std::optional<Difference> first;
        int connection = 0;  ///< of the record, 0 for one that it does not have
        int seq = 0;         ///< the record's line
        int count = 0;
    };
    /// Ends the broker. What the record has and nobody asked for counts as a difference as well.
    [[nodiscard]] Verdict finish();

private:
    struct Connection;
    using Peer = std::shared_ptr<Connection>;

    void _accept_loop();
    void _serve(Connection &connection);
    [[nodiscard]] bool _read(const Connection &connection, int &type, std::string &body);
    [[nodiscard]] const Turn *_turn_for(Connection &connection, int type, const std::string &body);
    [[nodiscard]] const Turn *_nearest(const Connection &connection, int type, const std::string &method);
    [[nodiscard]] const Turn *_next_poll(int request);
    void _poll(Connection &connection, const std::string &body);
    void _play(Connection &connection, const Turn &turn, int id);
    void _send(Connection &connection, const Spoken &spoken, int id);
    void _refuse(Connection &connection, int type, int id, int code);
    void _differs(Difference difference, int connection, int seq);
    void _stop();

    Journal &journal_;
    const std::vector<Conversation> record_;
    const Options options_;
    Descriptor listening_;
    std::thread acceptor_;

    std::mutex mutex_;
    // All below: under mutex_.
    bool stopping_ = false;
    Matcher matcher_;
    Verdict verdict_;
    std::vector<std::vector<bool>> used_;  // turns of the record
    std::map<int, int> requests_;          // of the record, by the id that was given now
    std::map<int, size_t> polled_;         // answers given to polls, by request
    int next_id_ = 1;
    std::list<Peer> connections_;
};

}  // namespace emulator
