// The server that firmware images are fetched from: HTTP or HTTPS on loopback, on a free port, with ranges,
// redirects and scripted faults. cpp-httplib speaks HTTP; this makes statuses, headers, bodies and faults.
//
// Rules are a JSON array, like those of a scenario; the first one that fits a request holds:
//   {"path": "/fw.bin", "method": "GET", "nth": 2, "do": {...}}
// path, method: when left out, any. nth: only the nth request that the rest fits, or every one.
// Members of "do":
//   status      answer with this code; from 300 on with a short body in place of the content
//   location    with status 301, 302, 303, 307 or 308: where to
//   length      the Content-Length told instead of the true one; null: none is told
//   ranges      false: ranges are ignored, the whole content is sent
//   stall_after bytes of the body after which nothing more comes while the client waits
//   drop_after  bytes of the body after which the connection ends
//   trickle     {"bytes": n, "ms": m}: so many at a time, with a rest in between
//
// Each answer becomes a record {"kind": "http", "method", "path", "range", "status", "sent"}: "range"
// as asked for (or ""), "sent" the bytes of the body that went out.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "http_server.h"
#include "journal.h"

namespace httplib {
class DataSink;
struct Request;
struct Response;
}  // namespace httplib

namespace emulator {

class ImageServer {
public:
    /// Listens at once. The journal must outlive it.
    /// @throws std::runtime_error  no socket, or unusable TLS files.
    explicit ImageServer(Journal &journal, const TlsFiles &tls = {});
    ~ImageServer();
    ImageServer(const ImageServer &) = delete;
    ImageServer &operator=(const ImageServer &) = delete;

    /// "http://localhost:PORT" or "https://localhost:PORT", and the path.
    [[nodiscard]] std::string url(std::string_view path) const;

    /// Puts content at a path ("/fw.bin"), replacing what was there.
    void put(const std::string &path, std::string content);

    /// The same with content that is made once: when it is first asked for, in a thread of the server's, or
    /// by largest().
    void put_later(const std::string &path, std::function<std::string()> make);

    /// Replaces the rules; counters of nth begin anew.
    /// @throws std::invalid_argument  a rule has a name or a value that no rule has.
    void set_rules(const json &rules);

    /// Adds a rule that holds before all others; its nth counts from now on.
    /// @throws std::invalid_argument  see set_rules.
    void add_rule(const json &rule);
    /// Takes away what add_rule() has added.
    void clear_added_rules();

    /// Ends every transfer that is at work.
    void cut() { ++cuts_; }
    /// true: all transfers stop where they are, until false.
    void stall(bool value) { stalled_ = value; }

    /// Bytes of the largest content. Makes what is still to be made.
    [[nodiscard]] size_t largest();

private:
    struct Rule;
    struct Answer;
    using Content = std::shared_ptr<const std::string>;

    void _answer(const httplib::Request &request, httplib::Response &response);
    [[nodiscard]] bool _send_body(Answer &answer, httplib::DataSink &sink) const;
    [[nodiscard]] bool _rest(httplib::DataSink &sink, std::chrono::milliseconds time) const;
    [[nodiscard]] Content _content(const std::string &path);
    [[nodiscard]] json _faults(const std::string &method, const std::string &path);

    Journal &journal_;
    const std::string scheme_;
    std::atomic<int> cuts_ = 0;
    std::atomic<bool> stalled_ = false;
    std::mutex mutex_;
    std::map<std::string, Content> contents_;                         // under mutex_
    std::map<std::string, std::function<std::string()>> to_be_made_;  // under mutex_
    std::vector<Rule> rules_;                                         // under mutex_
    HttpServer server_;
};

}  // namespace emulator
