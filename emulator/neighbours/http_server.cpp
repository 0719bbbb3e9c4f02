#include "http_server.h"

#include <httplib.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <list>
#include <stdexcept>
#include <thread>
#include <utility>

namespace emulator {
namespace {

constexpr const char *kLoopback = "127.0.0.1";
constexpr size_t kRequestsEach = 1000;  // on one connection

// A thread for each connection, made when that comes: most devices are asked for no image at all. All calls
// come from the server's own thread.
class ConnectionThreads : public httplib::TaskQueue {
    // Later versions of the library want to hear whether it is taken.
    using Taken = decltype(std::declval<httplib::TaskQueue &>().enqueue(nullptr));

public:
    Taken enqueue(std::function<void()> serve) override {
        served_.remove_if([](Served &served) {
            const bool done = served.done;
            if (done) {
                served.thread.join();
            }
            return done;
        });
        Served &served = served_.emplace_back();
        served.thread = std::thread([&served, serve = std::move(serve)] {
            serve();
            served.done = true;
        });
        return static_cast<Taken>(true);
    }

    void shutdown() override {
        for (Served &served : served_) {
            served.thread.join();
        }
    }

private:
    struct Served {
        std::atomic<bool> done = false;
        std::thread thread;
    };

    std::list<Served> served_;
};

std::unique_ptr<httplib::Server> _make_server(const TlsFiles &tls) {
    struct sigaction before {};
    sigaction(SIGPIPE, nullptr, &before);
    std::unique_ptr<httplib::Server> server;
    if (tls.certificate.empty()) {
        server = std::make_unique<httplib::Server>();
    } else {
        server = std::make_unique<httplib::SSLServer>(tls.certificate.c_str(), tls.key.c_str());
    }
    sigaction(SIGPIPE, &before, nullptr);
    return server;
}

}  // namespace

HttpServer::HttpServer(const TlsFiles &tls, int port) : server_(_make_server(tls)) {
    server_->set_keep_alive_max_count(kRequestsEach);
    server_->set_keep_alive_timeout(1);  // a client that idles must not keep the server from ending
    server_->new_task_queue = [] { return new ConnectionThreads; };
    if (server_->is_valid()) {
        port_ = port == 0                                ? server_->bind_to_any_port(kLoopback)
                : server_->bind_to_port(kLoopback, port) ? port
                                                         : -1;
    }
    if (port_ <= 0) {
        throw std::runtime_error("no server on port " + std::to_string(port) + " of " + kLoopback + ' ' +
                                 tls.certificate);
    }
}

HttpServer::~HttpServer() {
    stop();
}

void HttpServer::start() {
    listener_ = std::thread([this] {
        sigset_t pipe;  // handed on to the library's threads: a client that went away is no signal
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        server_->listen_after_bind();
    });
    while (!server_->is_running()) {
        std::this_thread::yield();
    }
}

void HttpServer::stop() {
    stopping_ = true;
    if (listener_.joinable()) {
        server_->stop();
        listener_.join();
    }
}

}  // namespace emulator
