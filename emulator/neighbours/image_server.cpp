#include "image_server.h"

#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <csignal>
#include <limits>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "document.h"

namespace emulator {
namespace {

constexpr size_t kLongestRequest = 64U << 10U;
constexpr size_t kPieceBytes = 256U << 10U;
constexpr size_t kNever = std::numeric_limits<size_t>::max();
constexpr int kLookEveryMs = 20;
constexpr int kOk = 200;
constexpr int kPartial = 206;
constexpr int kNotFound = 404;
constexpr int kBadRange = 416;

[[noreturn]] void _fail(const std::string &what) {
    throw std::runtime_error("image server: " + what + ": " + std::to_string(errno) + " " +
                             std::to_string(ERR_get_error()));
}

using Tls = std::unique_ptr<SSL_CTX, void (*)(SSL_CTX *)>;

// Null without files: plain HTTP.
Tls _make_tls(const TlsFiles &files) {
    if (files.certificate.empty()) {
        return {nullptr, SSL_CTX_free};
    }
    Tls tls(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    if (tls == nullptr || SSL_CTX_use_certificate_chain_file(tls.get(), files.certificate.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(tls.get(), files.key.c_str(), SSL_FILETYPE_PEM) != 1) {
        _fail(files.certificate);
    }
    return tls;
}

// The part of a content that a Range header asks for: "bytes=FROM-" or "bytes=FROM-TO".
struct Range {
    size_t from = 0;
    size_t to = kNever;  // inclusive
};

std::optional<Range> _parse_range(std::string_view text) {
    constexpr std::string_view kUnit = "bytes=";
    Range range;
    if (!text.starts_with(kUnit)) {
        return {};
    }
    text.remove_prefix(kUnit.size());
    const auto from = std::from_chars(text.data(), text.data() + text.size(), range.from);
    if (from.ec != std::errc{} || from.ptr == text.data() + text.size() || *from.ptr != '-') {
        return {};
    }
    std::from_chars(from.ptr + 1, text.data() + text.size(), range.to);
    return range.from <= range.to ? std::optional(range) : std::nullopt;
}

constexpr std::array kRuleMembers{Member{"path", Kind::kText}, Member{"method", Kind::kText},
                                  Member{"nth", Kind::kNumber}, Member{"do", Kind::kObject, true}};
constexpr std::array kFaultMembers{
    Member{"status", Kind::kNumber},      Member{"location", Kind::kText},
    Member{"length", Kind::kCountOrNull}, Member{"ranges", Kind::kFlag},
    Member{"stall_after", Kind::kCount},  Member{"drop_after", Kind::kCount},
    Member{"trickle", Kind::kObject},
};
constexpr std::array kTrickleMembers{Member{"bytes", Kind::kNumber, true}, Member{"ms", Kind::kCount, true}};

void _check_rule(const json &rule, const std::string &what) {
    check_members(rule, kRuleMembers, what);
    const json &faults = rule.at("do");
    check_members(faults, kFaultMembers, "\"do\" of " + what);
    if (faults.contains("trickle")) {
        check_members(faults.at("trickle"), kTrickleMembers, "\"trickle\" of " + what);
    }
}

const char *_reason(int status) {
    switch (status) {
        case kOk:
            return "OK";
        case kPartial:
            return "Partial Content";
        case kNotFound:
            return "Not Found";
        case kBadRange:
            return "Range Not Satisfiable";
        default:
            return "As Told";
    }
}

}  // namespace

struct ImageServer::Rule {
    json rule;
    int seen = 0;
    bool added = false;  // while the device runs
};

struct ImageServer::Request {
    std::string method;
    std::string path;
    std::string range;
};

struct ImageServer::Response {
    Content content;  // keeps the body
    int status = kOk;
    std::string header;  // lines of it
    std::string_view body;
    bool close = false;
};

// One client: plain or TLS.
class ImageServer::Connection {
public:
    Connection(Descriptor client, int stop_fd, SSL_CTX *tls) : client_(std::move(client)), stop_fd_(stop_fd) {
        if (tls != nullptr) {
            ssl_.reset(SSL_new(tls));
            SSL_set_fd(ssl_.get(), client_.get());
            open_ = SSL_accept(ssl_.get()) == 1;
        }
    }
    ~Connection() {
        if (open_ && ssl_ != nullptr) {
            SSL_shutdown(ssl_.get());
        }
        ERR_clear_error();
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    [[nodiscard]] bool read_request(Request &request) {
        size_t end = 0;
        while ((end = received_.find("\r\n\r\n")) == std::string::npos) {
            std::array<char, 4096> buffer{};
            const auto size = open_ && received_.size() < kLongestRequest ? _read(buffer) : 0;
            if (size <= 0) {
                return false;
            }
            received_.append(buffer.data(), static_cast<size_t>(size));
        }
        std::istringstream head(received_.substr(0, end));
        received_.erase(0, end + 4);
        head >> request.method >> request.path;
        for (std::string line; std::getline(head, line);) {
            constexpr std::string_view kName = "range: ";
            if (strncasecmp(line.c_str(), kName.data(), kName.size()) == 0) {
                request.range = line.substr(kName.size(), line.find('\r') - kName.size());
            }
        }
        return true;
    }

    [[nodiscard]] bool write(std::string_view bytes) {
        while (!bytes.empty() && open_) {
            const size_t piece = std::min(bytes.size(), kPieceBytes);
            const auto sent = ssl_ != nullptr ? SSL_write(ssl_.get(), bytes.data(), static_cast<int>(piece))
                                              : send(client_.get(), bytes.data(), piece, MSG_NOSIGNAL);
            open_ = sent > 0;
            bytes.remove_prefix(sent > 0 ? static_cast<size_t>(sent) : 0);
        }
        return open_;
    }

    // Returns when the time is over (true), the client has gone or the server ends.
    [[nodiscard]] bool rest(int milliseconds) {
        std::array<pollfd, 2> ends{{{client_.get(), POLLRDHUP, 0}, {stop_fd_, POLLIN, 0}}};
        return poll(ends.data(), ends.size(), milliseconds) == 0;
    }

    // Waits for the next request. @return false when there will be none.
    [[nodiscard]] bool wait() {
        std::array<pollfd, 2> ends{{{client_.get(), POLLIN, 0}, {stop_fd_, POLLIN, 0}}};
        return open_ && (!received_.empty() || (ssl_ != nullptr && SSL_pending(ssl_.get()) > 0) ||
                         (poll(ends.data(), ends.size(), -1) > 0 && ends[1].revents == 0));
    }

private:
    [[nodiscard]] ssize_t _read(std::array<char, 4096> &buffer) {
        return ssl_ != nullptr ? SSL_read(ssl_.get(), buffer.data(), static_cast<int>(buffer.size()))
                               : recv(client_.get(), buffer.data(), buffer.size(), 0);
    }

    Descriptor client_;
    int stop_fd_;
    std::unique_ptr<SSL, void (*)(SSL *)> ssl_{nullptr, SSL_free};  // goes before its descriptor
    bool open_ = true;
    std::string received_;
};

ImageServer::ImageServer(Journal &journal, const TlsFiles &tls) : journal_(journal), tls_(_make_tls(tls)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    listening_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    stop_.reset(eventfd(0, EFD_CLOEXEC));
    if (bind(listening_.get(), reinterpret_cast<const sockaddr *>(&address), size) != 0 ||
        listen(listening_.get(), SOMAXCONN) != 0 ||
        getsockname(listening_.get(), reinterpret_cast<sockaddr *>(&address), &size) != 0) {
        _fail("socket");
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { _accept_loop(); });
}

ImageServer::~ImageServer() {
    eventfd_write(stop_.get(), 1);
    acceptor_.join();
    for (Served &connection : connections_) {
        connection.thread.join();
    }
}

std::string ImageServer::url(std::string_view path) const {
    return (tls_ ? "https://localhost:" : "http://localhost:") + std::to_string(port_) + std::string(path);
}

void ImageServer::put(const std::string &path, std::string content) {
    const std::lock_guard lock(mutex_);
    contents_[path] = std::make_shared<const std::string>(std::move(content));
    to_be_made_.erase(path);
}

void ImageServer::put_later(const std::string &path, std::function<std::string()> make) {
    const std::lock_guard lock(mutex_);
    to_be_made_[path] = std::move(make);
}

void ImageServer::set_rules(const json &rules) {
    std::vector<Rule> checked;
    for (const json &rule : rules) {
        _check_rule(rule, "the image server's rule " + std::to_string(checked.size() + 1));
        checked.push_back({rule});
    }
    const std::lock_guard lock(mutex_);
    rules_ = std::move(checked);
}

void ImageServer::add_rule(const json &rule) {
    _check_rule(rule, "the image server's rule");
    const std::lock_guard lock(mutex_);
    rules_.insert(rules_.begin(), {rule, 0, true});
}

void ImageServer::clear_added_rules() {
    const std::lock_guard lock(mutex_);
    std::erase_if(rules_, [](const Rule &rule) { return rule.added; });
}

size_t ImageServer::largest() {
    const std::lock_guard lock(mutex_);
    for (const auto &[path, make] : std::exchange(to_be_made_, {})) {
        contents_[path] = std::make_shared<const std::string>(make());
    }
    size_t size = 0;
    for (const auto &[path, content] : contents_) {
        size = std::max(size, content->size());
    }
    return size;
}

void ImageServer::_accept_loop() {
    std::array<pollfd, 2> inputs{{{stop_.get(), POLLIN, 0}, {listening_.get(), POLLIN, 0}}};
    while (poll(inputs.data(), inputs.size(), -1) >= 0 && inputs[0].revents == 0) {
        Descriptor client(accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        connections_.remove_if([](Served &connection) {
            const bool ended = connection.ended;
            if (ended) {
                connection.thread.join();
            }
            return ended;
        });
        if (client.ok()) {
            Served &connection = connections_.emplace_back();
            connection.thread = std::thread([this, client = std::move(client), &connection]() mutable {
                _serve(std::move(client));
                connection.ended = true;
            });
        }
    }
}

void ImageServer::_serve(Descriptor client) {
    sigset_t pipe;  // the TLS library writes as it likes: a client that went away is no signal
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    // A client that neither sends nor reads must not keep the server from ending.
    const timeval patience{30, 0};
    setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(client.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    Connection connection(std::move(client), stop_.get(), tls_.get());
    try {
        Request request;
        while (connection.wait() && connection.read_request(request) && _answer(connection, request)) {
            request = {};
        }
    } catch (const std::exception &error) {  // a rule of a wrong kind, content that cannot be made
        journal_.add_scenario_error({{"text", error.what()}});
    }
}

json ImageServer::_faults(const Request &request) {
    const std::lock_guard lock(mutex_);
    for (Rule &rule : rules_) {
        if (rule.rule.value("path", request.path) != request.path ||
            rule.rule.value("method", request.method) != request.method) {
            continue;
        }
        ++rule.seen;
        if (rule.rule.value("nth", rule.seen) == rule.seen) {
            return rule.rule.at("do");
        }
    }
    return json::object();
}

ImageServer::Content ImageServer::_content(const std::string &path) {
    const std::lock_guard lock(mutex_);
    if (const auto made = to_be_made_.extract(path)) {
        contents_[path] = std::make_shared<const std::string>(made.mapped()());
    }
    const auto found = contents_.find(path);
    return found == contents_.end() ? nullptr : found->second;
}

// Status, headers and body, as the rule wants them.
ImageServer::Response ImageServer::_make_response(const Request &request, const json &faults) {
    Response response;
    response.content = _content(request.path);
    const auto range = faults.value("ranges", true) ? _parse_range(request.range) : std::nullopt;
    const bool there = response.content != nullptr;
    response.status = faults.value("status", !there ? kNotFound : range ? kPartial : kOk);
    response.body = there && response.status < 300 ? std::string_view(*response.content) : "told to fail\n";
    std::string &header = response.header;
    const size_t size = response.body.size();
    const bool partial =
        range && response.status == kPartial;  // a rule may tell of one that nobody asked for
    if (partial && range->from >= size) {
        response.status = kBadRange;
        response.body = {};
        header = "Content-Range: bytes */" + std::to_string(size) + "\r\n";
    } else if (partial) {
        const size_t last = std::min(range->to, size - 1);
        response.body = response.body.substr(range->from, last - range->from + 1);
        header = "Content-Range: bytes " + std::to_string(range->from) + "-" + std::to_string(last) + "/" +
                 std::to_string(size) + "\r\n";
    }
    if (faults.contains("location")) {
        header += "Location: " + faults.at("location").get<std::string>() + "\r\n";
    }
    const json length = faults.contains("length") ? faults.at("length") : json(response.body.size());
    if (!length.is_null()) {
        header += "Content-Length: " + dump(length) + "\r\n";
    }
    response.close = faults.contains("length");
    if (response.close) {
        header += "Connection: close\r\n";
    }
    if (request.method == "HEAD") {
        response.body = {};
    }
    return response;
}

// Sends a body in the way that the rule wants. @return bytes that went out.
size_t ImageServer::_send_body(Connection &connection, std::string_view body, const json &faults) const {
    const int cuts = cuts_;
    const size_t stall_after = faults.value("stall_after", kNever);
    const json trickle = faults.value("trickle", json{{"bytes", kPieceBytes}, {"ms", 0}});
    const size_t piece_bytes = std::max(trickle.at("bytes").get<size_t>(), size_t{1});
    const int rest_ms = trickle.at("ms");
    const std::string_view all = body.substr(0, std::min(stall_after, faults.value("drop_after", kNever)));
    size_t sent = 0;
    while (sent < all.size()) {
        while (stalled_ && cuts == cuts_ && connection.rest(kLookEveryMs)) {
        }
        if (cuts != cuts_) {
            return sent;
        }
        const std::string_view piece = all.substr(sent, piece_bytes);
        if (!connection.write(piece)) {
            return sent;
        }
        sent += piece.size();
        if (rest_ms > 0 && !connection.rest(rest_ms)) {
            return sent;
        }
    }
    if (stall_after < body.size()) {
        static_cast<void>(connection.rest(-1));
    }
    return sent;
}

// Returns whether the connection can take another request.
bool ImageServer::_answer(Connection &connection, const Request &request) {
    const json faults = _faults(request);
    const Response response = _make_response(request, faults);
    const bool open = connection.write("HTTP/1.1 " + std::to_string(response.status) + " " +
                                       _reason(response.status) + "\r\n" + response.header + "\r\n");
    const size_t sent = open ? _send_body(connection, response.body, faults) : 0;
    journal_.add("http", {{"method", request.method},
                          {"path", request.path},
                          {"range", request.range},
                          {"status", response.status},
                          {"sent", sent}});
    return open && !response.close && sent == response.body.size();
}

}  // namespace emulator
