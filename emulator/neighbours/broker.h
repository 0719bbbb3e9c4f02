// The broker of the emulated device: a stream socket, one thread for each connection, a cloud
// behind it. It has its own encoder of the wire format, shared with nothing of the device.
// A scenario (docs/emulator.md) scripts its start values and its faults.
#pragma once

#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "broker_answers.h"
#include "broker_rules.h"
#include "cloud.h"
#include "descriptor.h"
#include "journal.h"
#include "wire.h"

namespace emulator {

inline constexpr const char *kBrokerPath = "/tmp/cloud-brd";

class Broker {
public:
    /// Listens at once, unless the scenario says "listening": false. Journal and cloud must outlive it.
    /// @throws std::system_error      the socket cannot be had.
    /// @throws std::invalid_argument  see set_rules.
    Broker(Journal &journal, Cloud &cloud, const json &scenario = json::object(),
           std::string path = kBrokerPath);
    ~Broker();
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    void start();  ///< Listens; nothing when it does already. @throws std::system_error
    void stop();   ///< Closes socket and connections at once, and joins the threads.

    /// See BrokerRules::replace.
    void set_rules(const json &rules) { rules_.replace(rules); }

    /// See BrokerRules::add.
    json add_rule(const json &rule) { return rules_.add(rule); }

    [[nodiscard]] int logic() const { return answers_.logic(); }
    void set_logic(int value) { answers_.set_logic(value); }
    [[nodiscard]] int link() const { return answers_.link(); }
    /// 2 is up. With any other value no answer of the cloud comes in.
    void set_link(int value) { answers_.set_link(value); }

    // The register side. Each sends on the connection that registered itself, and waits for
    // one to do so if there is none; std::runtime_error when the watchdog runs out.
    void ask_hello();                                  ///< type 128
    void deliver_hello(std::string_view cloudAnswer);  ///< type 34: {"errorcode":0,"response":cloudAnswer}
    void deliver_hello();                              ///< type 34 with the cloud's answer to the last 129
    void push_request(std::string_view cloudRequest);  ///< type 112: {"request":cloudRequest}
    void send(int type, std::string_view body);        ///< any message

private:
    struct Connection;
    using Peer = std::shared_ptr<Connection>;

    void _accept_loop(int listening);
    void _serve(Connection &connection);
    [[nodiscard]] bool _read_message(Connection &connection, ClientMessage &message);
    void _handle(Connection &connection, const ClientMessage &message);
    void _deliver(Connection &connection, int type, const std::string &body, const json &effects);
    void _write(const Connection &connection, const std::string &bytes, const json &trickle);
    void _then(Connection &connection, const json &step);
    [[nodiscard]] bool _pause(std::chrono::milliseconds time);
    [[nodiscard]] Peer _registered();

    Journal &journal_;
    const std::string path_;
    BrokerRules rules_;
    BrokerAnswers answers_;

    std::mutex mutex_;
    std::condition_variable changed_;
    // All below: under mutex_.
    bool stopping_ = false;
    Descriptor listening_;
    int next_connection_ = 1;
    std::list<Peer> connections_;
    std::thread acceptor_;  // stop() joins it without the mutex
};

}  // namespace emulator
