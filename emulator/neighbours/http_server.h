// A server on loopback for HTTP or HTTPS, by cpp-httplib, which leaves two things to its user: it ignores
// SIGPIPE for the whole process (what is started would inherit that), and it cannot be stopped before it
// runs.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace emulator {

/// PEM files of an HTTPS server; both empty: HTTP.
struct TlsFiles {
    std::string certificate;
    std::string key;
};

class HttpServer {
public:
    /// Has its port when it returns. @param port  0: a free one.
    /// @throws std::runtime_error  no such port is to be had, or the TLS files are unusable.
    explicit HttpServer(const TlsFiles &tls = {}, int port = 0);
    ~HttpServer();  ///< see stop
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    /// Where handlers are set, before start().
    [[nodiscard]] httplib::Server &library() { return *server_; }

    /// Serves, from threads of its own.
    void start();

    /// Ends; handlers that wait for something look at stopping(). The second call does nothing.
    void stop();

    [[nodiscard]] int port() const { return port_; }
    [[nodiscard]] bool stopping() const { return stopping_; }

private:
    std::unique_ptr<httplib::Server> server_;
    int port_ = 0;
    std::atomic<bool> stopping_ = false;
    std::thread listener_;
};

}  // namespace emulator
