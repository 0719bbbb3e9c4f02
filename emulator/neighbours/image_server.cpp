#include "image_server.h"

#include <httplib.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <exception>
#include <limits>
#include <optional>
#include <thread>
#include <utility>

#include "document.h"

namespace emulator {
namespace {

constexpr size_t kPieceBytes = 256U << 10U;
constexpr size_t kNever = std::numeric_limits<size_t>::max();
constexpr std::chrono::milliseconds kLookEvery{20};
constexpr int kOk = 200;
constexpr int kPartial = 206;
constexpr int kNotFound = 404;
constexpr int kBadRange = 416;
constexpr int kBroken = 500;

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

}  // namespace

struct ImageServer::Rule {
    json rule;
    int seen = 0;
    bool added = false;  // while the device runs
};

// What is sent for one request, and how.
struct ImageServer::Answer {
    Content content;  // keeps the body
    std::string_view body;
    json faults = json::object();
    size_t sent = 0;
};

ImageServer::ImageServer(Journal &journal, const TlsFiles &tls)
    : journal_(journal), scheme_(tls.certificate.empty() ? "http" : "https"), server_(tls) {
    using Handler = httplib::Server::HandlerWithResponse;
    server_.library().set_pre_routing_handler([this](const auto &request, auto &response) {
        // Newer libraries would check the range against a length that they are not told, and refuse it.
        const_cast<httplib::Request &>(request).ranges.clear();
        _answer(request, response);
        return httplib::Server::HandlerResponse::Handled;
    });
    server_.library().set_exception_handler([this](const auto &, auto &response, std::exception_ptr thrown) {
        try {
            std::rethrow_exception(std::move(thrown));
        } catch (const std::exception &error) {  // content that cannot be made
            journal_.add_scenario_error({{"text", error.what()}});
        }
        response.status = kBroken;
    });
    // The library refuses a malformed range before it calls the handler above. Here it is answered.
    server_.library().set_error_handler(Handler([this](const auto &request, auto &response) {
        if (!response.content_provider_ && response.status == kBadRange) {
            _answer(request, response);
        }
        return httplib::Server::HandlerResponse::Handled;
    }));
    server_.start();
}

ImageServer::~ImageServer() = default;

std::string ImageServer::url(std::string_view path) const {
    return scheme_ + "://localhost:" + std::to_string(server_.port()) + std::string(path);
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

ImageServer::Content ImageServer::_content(const std::string &path) {
    const std::lock_guard lock(mutex_);
    if (const auto made = to_be_made_.extract(path)) {
        contents_[path] = std::make_shared<const std::string>(made.mapped()());
    }
    const auto found = contents_.find(path);
    return found == contents_.end() ? nullptr : found->second;
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
    for (const auto &[path, make] : to_be_made_) {
        contents_[path] = std::make_shared<const std::string>(make());
    }
    to_be_made_.clear();
    size_t size = 0;
    for (const auto &[path, content] : contents_) {
        size = std::max(size, content->size());
    }
    return size;
}

json ImageServer::_faults(const std::string &method, const std::string &path) {
    const std::lock_guard lock(mutex_);
    for (Rule &rule : rules_) {
        if (rule.rule.value("path", path) != path || rule.rule.value("method", method) != method) {
            continue;
        }
        ++rule.seen;
        if (rule.rule.value("nth", rule.seen) == rule.seen) {
            return rule.rule.at("do");
        }
    }
    return json::object();
}

// Status, headers and body, as the rule wants them.
void ImageServer::_answer(const httplib::Request &request, httplib::Response &response) {
    const auto answer = std::make_shared<Answer>();
    answer->faults = _faults(request.method, request.path);
    answer->content = _content(request.path);
    const json &faults = answer->faults;
    const std::string asked = request.get_header_value("Range");
    const auto range = faults.value("ranges", true) ? _parse_range(asked) : std::nullopt;
    const bool there = answer->content != nullptr;
    response.status = faults.value("status", !there ? kNotFound : range ? kPartial : kOk);
    std::string_view &body = answer->body;
    body = there && response.status < 300 ? std::string_view(*answer->content) : "told to fail\n";
    const std::string size = std::to_string(body.size());
    const bool partial =
        range && response.status == kPartial;  // a rule may tell of one that nobody asked for
    if (partial && range->from >= body.size()) {
        response.status = kBadRange;
        body = {};
        response.set_header("Content-Range", "bytes */" + size);
    } else if (partial) {
        const size_t last = std::min(range->to, body.size() - 1);
        body = body.substr(range->from, last - range->from + 1);
        response.set_header("Content-Range",
                            "bytes " + std::to_string(range->from) + "-" + std::to_string(last) + "/" + size);
    }
    if (faults.contains("location")) {
        response.set_header("Location", faults.at("location").get<std::string>());
    }
    const json length = faults.contains("length") ? faults.at("length") : json(body.size());
    if (!length.is_null()) {
        response.set_header("Content-Length", dump(length));
    }
    if (faults.contains("length")) {
        response.set_header("Connection", "close");
    }
    // A provider without a length may send less or more than the Content-Length above.
    response.set_content_provider(
        "application/octet-stream",
        [this, answer](size_t /*offset*/, httplib::DataSink &sink) { return _send_body(*answer, sink); },
        [this, answer, asked, target = std::pair(request.method, request.path),
         status = response.status](bool /*success*/) {
            journal_.add("http", {{"method", target.first},
                                  {"path", target.second},
                                  {"range", asked},
                                  {"status", status},
                                  {"sent", answer->sent}});
        });
}

// Waits. @return false when the client has gone or the server ends.
bool ImageServer::_rest(httplib::DataSink &sink, std::chrono::milliseconds time) const {
    const auto deadline = std::chrono::steady_clock::now() + time;
    while (!server_.stopping() && sink.is_writable()) {
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= left.zero()) {
            return true;
        }
        std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(left, kLookEvery));
    }
    return false;
}

// Sends a body in the way that the rule wants. @return whether the connection can take another request.
bool ImageServer::_send_body(Answer &answer, httplib::DataSink &sink) const {
    const json &faults = answer.faults;
    const size_t stallAfter = faults.value("stall_after", kNever);
    const json trickle = faults.value("trickle", json{{"bytes", kPieceBytes}, {"ms", 0}});
    const size_t pieceBytes = std::max(trickle.at("bytes").get<size_t>(), size_t{1});
    const std::chrono::milliseconds rest(trickle.at("ms").get<int>());
    const std::string_view all =
        answer.body.substr(0, std::min(stallAfter, faults.value("drop_after", kNever)));
    const int cuts = cuts_;
    while (answer.sent < all.size()) {
        while (stalled_ && cuts == cuts_ && _rest(sink, kLookEvery)) {
        }
        if (cuts != cuts_) {
            return false;
        }
        const std::string_view piece = all.substr(answer.sent, pieceBytes);
        if (!sink.write(piece.data(), piece.size())) {
            return false;
        }
        answer.sent += piece.size();
        if (rest > rest.zero() && !_rest(sink, rest)) {
            return false;
        }
    }
    if (stallAfter < answer.body.size()) {
        while (_rest(sink, kLookEvery)) {
        }
    }
    if (answer.sent == answer.body.size() && !faults.contains("length")) {
        sink.done();
        return true;
    }
    return false;
}

}  // namespace emulator
