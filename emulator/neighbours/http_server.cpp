#include "http_server.h"

#include <httplib.h>

#include <csignal>
#include <stdexcept>

namespace emulator {
namespace {

constexpr const char *kLoopback = "127.0.0.1";
constexpr size_t kRequestsEach = 1000;  // on one connection
constexpr size_t kThreads = 32;         // one for each connection that is open

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
    server_->new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
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
