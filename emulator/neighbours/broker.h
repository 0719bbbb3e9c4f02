// The broker of the emulated device: a stream socket, one thread for each connection, a cloud
// behind it. It has its own encoder of the wire format, shared with nothing of the device.
// A scenario (docs/emulator.md) scripts its start values and its faults.
#pragma once

#include <chrono>
#include <condition_variable>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "cloud.h"
#include "descriptor.h"
#include "journal.h"
#include "wire.h"

namespace emulator {

inline constexpr const char *kBrokerPath = "/tmp/cloud-brd";

class Broker {
public:
    /// Listens at once, unless the scenario says "listening": false.
    /// @throws std::system_error  the socket cannot be had; std::invalid_argument, see set_rules.
    Broker(Journal &journal, Cloud &cloud, json scenario = json::object(), std::string path = kBrokerPath);
    ~Broker();
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    void start();  ///< Listens; nothing when it does already.
    void stop();   ///< Closes socket and connections at once, and joins the threads.

    /// Replaces the rules of the scenario; counters of nth begin anew.
    /// @throws std::invalid_argument  a rule has a name or a value that no rule has.
    void set_rules(const json &rules);

    /// Adds a rule while clients may be at work; its nth counts from now on.
    /// @return the rule as a scenario would have it: nth counted from the broker's begin.
    /// @throws std::invalid_argument  see set_rules.
    json add_rule(const json &rule);

    [[nodiscard]] int logic() const;
    void set_logic(int value);
    [[nodiscard]] int link() const;
    /// 2 is up. With any other value no answer of the cloud comes in.
    void set_link(int value);

    // The register side. Each sends on the connection that registered itself, and waits for
    // one to do so if there is none; std::runtime_error when the watchdog runs out.
    void ask_hello();                                   ///< type 128
    void deliver_hello(std::string_view cloud_answer);  ///< type 34: {"errorcode":0,"response":cloud_answer}
    void deliver_hello();                               ///< type 34 with the cloud's answer to the last 129
    void push_request(std::string_view cloud_request);  ///< type 112: {"request":cloud_request}
    void send(int type, std::string_view body);         ///< any message

private:
    struct Connection;
    struct Message;
    struct Request;
    struct Rule;
    using Peer = std::shared_ptr<Connection>;

    void _accept_loop(int listening);
    void _serve(Connection &connection);
    [[nodiscard]] bool _read_message(Connection &connection, Message &message);
    [[nodiscard]] std::string _method_of(const Message &message);
    [[nodiscard]] json _effects(const Connection &connection, const Message &message);
    void _handle(Connection &connection, const Message &message);
    [[nodiscard]] json _reply(const Message &message, const json &effects);
    [[nodiscard]] json _submit(const Message &message, const json &effects);
    [[nodiscard]] json _poll(const Message &message, const json &effects);
    void _notify(const Message &message);
    [[nodiscard]] int _link_now();
    void _deliver(Connection &connection, int type, const std::string &body, const json &effects);
    void _write(const Connection &connection, const std::string &bytes, const json &trickle);
    void _then(Connection &connection, const json &step);
    [[nodiscard]] std::string _hello_answer();
    [[nodiscard]] bool _pause(std::chrono::milliseconds time);
    [[nodiscard]] Peer _registered();

    Journal &journal_;
    Cloud &cloud_;
    const json scenario_;
    const std::string path_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // All below: under mutex_.
    bool stopping_ = false;
    Descriptor listening_;
    int logic_ = 0;
    int link_ = 2;
    int link_polls_ = 0;                                // queries for which a reconnect still shows
    std::chrono::steady_clock::time_point link_ready_;  // and the time until which it does
    int next_id_ = 1;
    int next_connection_ = 1;
    std::map<int, Request> requests_;
    std::vector<Rule> rules_;
    std::map<std::pair<int, std::string>, int> handled_;  // type and method: how many there were
    std::list<Peer> connections_;
    std::thread acceptor_;
};

}  // namespace emulator
