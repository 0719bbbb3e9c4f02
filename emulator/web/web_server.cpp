#include "web_server.h"

#include <httplib.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "firmware.h"
#include "meanings.h"
#include "page_files.h"
#include "secrets.h"
#include "sequence.h"
#include "wire.h"

namespace emulator {
namespace {

using httplib::Request;
using httplib::Response;

// For news of the journal; the runs and the state are looked at after each wait.
constexpr std::chrono::milliseconds kWait{100};
constexpr size_t kRecordsAtOnce = 500;
constexpr int kSilentRounds =
    100;  // after so many a sign of life, which finds out whether the reader is there
constexpr size_t kLongestBody = 1U << 20U;
constexpr int kBad = 400;
constexpr int kForbidden = 403;
constexpr std::array<std::pair<std::string_view, const char *>, 3> kTypes{{
    {".html", "text/html; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
}};

std::string _make_token() {
    std::string bytes(16, '\0');
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "getrandom");
    }
    return to_hex(bytes);
}

const char *_type(std::string_view name) {
    for (const auto &[ending, type] : kTypes) {
        if (name.ends_with(ending)) {
            return type;
        }
    }
    return "application/octet-stream";
}

bool _wants_secrets(const Request &request) {
    return request.get_param_value("secrets") == "1";
}

// What is wrong with who asks; "" when nothing is.
std::string _refusal(const Request &request, int port, const std::string &token) {
    const std::string host = request.get_header_value("Host");
    const std::string end = ":" + std::to_string(port);
    if (host != "127.0.0.1" + end && host != "localhost" + end && host != "[::1]" + end) {
        return "This page is for loopback only.";
    }
    const std::string site = request.get_header_value("Sec-Fetch-Site");
    const bool opened = site == "none" && request.method == "GET";  // typed, or a bookmark
    if ((!site.empty() && site != "same-origin" && !opened) ||
        (request.has_header("Origin") && request.get_header_value("Origin") != "http://" + host)) {
        return "This page takes nothing from other sites.";
    }
    if (!request.path.starts_with("/" + token + "/")) {
        return "This page needs the token that its address was told with.";
    }
    return "";
}

json _arrows(Sequence &sequence, const json &record) {
    constexpr std::array kStyles{"plain", "implied", "lost", "note"};
    json list = json::array();
    for (const Arrow &arrow : sequence.arrows(record)) {
        list.push_back({{"from", arrow.from},
                        {"to", arrow.to},
                        {"style", kStyles.at(static_cast<size_t>(arrow.style))},
                        {"label", arrow.label},
                        {"fault", arrow.fault}});
    }
    return list;
}

// What printed numbers mean; the device's own meaning goes first.
json _codes() {
    json codes = json::object();
    for (const CodeMeaning &row : code_meanings()) {
        const std::string number = std::to_string(row.code);
        if ((row.place == Place::kPrinted || row.place == Place::kCloud) && !codes.contains(number)) {
            codes[number] = row.meaning;
        }
    }
    return codes;
}

}  // namespace

// One reader of the events, and what it knows already.
struct WebServer::Reader {
    int seq = 0;
    int runs = 0;
    int state = 0;
    int silent = 0;
    bool secrets = false;
    bool begun = false;
    Sequence sequence;
};

WebServer::WebServer(Cockpit &cockpit, int port)
    : cockpit_(cockpit), token_(_make_token()), server_({}, port) {
    httplib::Server &library = server_.library();
    library.set_payload_max_length(kLongestBody);
    library.set_default_headers({
        {"Cache-Control", "no-store"},
        {"Content-Security-Policy",
         "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
         "img-src data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
        {"Cross-Origin-Resource-Policy", "same-origin"},
        {"Referrer-Policy", "no-referrer"},
        {"X-Content-Type-Options", "nosniff"},
    });
    library.set_pre_routing_handler([this](const Request &request, Response &response) {
        const std::string refusal = _refusal(request, server_.port(), token_);
        if (refusal.empty()) {
            return httplib::Server::HandlerResponse::Unhandled;
        }
        response.status = kForbidden;
        response.set_content(refusal + "\n", "text/plain");
        return httplib::Server::HandlerResponse::Handled;
    });
    _add_routes();
    server_.start();
}

std::string WebServer::address() const {
    return "http://127.0.0.1:" + std::to_string(server_.port()) + "/" + token_ + "/";
}

void WebServer::_add_routes() {
    for (const PageFile &file : page_files()) {
        const std::string name = file.name == "index.html" ? "" : std::string(file.name);
        server_.library().Get("/" + token_ + "/" + name, [file](const Request &, Response &response) {
            response.set_content(file.content.data(), file.content.size(), _type(file.name));
        });
    }
    server_.library().Get("/" + token_ + "/events",
                          [this](const Request &request, Response &response) { _stream(request, response); });
    _get("journal", &WebServer::_journal);
    _get("scenario", &WebServer::_scenario);
    _get("store", &WebServer::_store);
    _get("files", &WebServer::_files);
    _get("file", &WebServer::_file);
    _get("cloud", &WebServer::_cloud);
    _get("cipher", &WebServer::_cipher);
    _post("run", &WebServer::_run);
    _post("spoil", &WebServer::_spoil);
    _post("cloud", &WebServer::_change_cloud);
    _post("firmware", &WebServer::_offer);
}

void WebServer::_get(const std::string &name, std::string (WebServer::*text)(const Request &)) {
    server_.library().Get("/" + token_ + "/" + name,
                          [this, text](const Request &request, Response &response) {
                              try {
                                  std::string content = (this->*text)(request);
                                  if (!_wants_secrets(request)) {
                                      content = Secrets(_model()).cover(std::move(content));
                                  }
                                  response.set_content(content, "text/plain; charset=utf-8");
                              } catch (const std::exception &error) {
                                  response.status = kBad;
                                  response.set_content(error.what(), "text/plain; charset=utf-8");
                              }
                          });
}

void WebServer::_post(const std::string &name, json (WebServer::*act)(const json &)) {
    server_.library().Post(
        "/" + token_ + "/" + name, [this, act](const Request &request, Response &response) {
            try {
                // Only a page of this origin may send that type without being asked first.
                if (!request.get_header_value("Content-Type").starts_with("application/json")) {
                    throw std::invalid_argument("a request must be application/json");
                }
                response.set_content(dump((this->*act)(json::parse(request.body))), "application/json");
            } catch (const std::exception &error) {
                response.status = kBad;
                response.set_content(Secrets(_model()).cover(error.what()), "text/plain; charset=utf-8");
            }
        });
}

void WebServer::_stream(const Request &request, Response &response) {
    const auto reader = std::make_shared<Reader>();
    reader->secrets = _wants_secrets(request);
    reader->seq = std::atoi(request.get_header_value("Last-Event-ID").c_str());
    response.set_chunked_content_provider("text/event-stream",
                                          [this, reader](size_t /*offset*/, httplib::DataSink &sink) {
                                              return !server_.stopping() && _write_news(*reader, sink);
                                          });
}

bool WebServer::_write_news(Reader &reader, httplib::DataSink &sink) {
    const std::vector<json> records = cockpit_.control().journal().await_after(reader.seq, kWait);
    std::string text;
    if (!std::exchange(reader.begun, true)) {
        text = "event: codes\ndata: " + dump(_codes()) + "\n\n";
    }
    for (size_t begin = 0; begin < records.size(); begin += kRecordsAtOnce) {
        const size_t end = std::min(begin + kRecordsAtOnce, records.size());
        reader.seq = records[end - 1].at("seq");
        text += "id: " + std::to_string(reader.seq) + "\nevent: records\ndata: [";
        for (size_t i = begin; i < end; ++i) {
            text += i == begin ? "" : ",";
            text += dump({{"record", records[i]}, {"arrows", _arrows(reader.sequence, records[i])}});
        }
        text += "]\n\n";
    }
    if (const json runs = cockpit_.runs(reader.runs); !runs.empty()) {
        text += "event: runs\ndata: " + dump(runs) + "\n\n";
    }
    if (const json state = cockpit_.state(reader.state); !state.is_null()) {
        text += "event: state\ndata: " + dump(state) + "\n\n";
    }
    if (text.empty() && ++reader.silent == kSilentRounds) {
        text = ":\n\n";
    }
    if (text.empty()) {
        return true;
    }
    reader.silent = 0;
    if (!reader.secrets) {
        text = Secrets(_model()).cover(std::move(text));
    }
    return sink.write(text.data(), text.size());
}

json WebServer::_model() {
    const auto alive = cockpit_.control().device().hold();
    return cockpit_.control().device().cloud().model();
}

std::string WebServer::_journal(const Request & /*request*/) {
    return cockpit_.control().journal().text();
}

std::string WebServer::_scenario(const Request & /*request*/) {
    constexpr int kIndent = 2;
    return cockpit_.control().scenario().dump(kIndent, ' ', false, json::error_handler_t::replace) + '\n';
}

std::string WebServer::_store(const Request & /*request*/) {
    return Process({"cloud_store", "dump"}).wait().out;
}

std::string WebServer::_files(const Request & /*request*/) {
    return dump(Cockpit::files());
}

std::string WebServer::_file(const Request &request) {
    return valid_utf8(Cockpit::file(request.get_param_value("path")));
}

std::string WebServer::_cloud(const Request & /*request*/) {
    return dump(_model());
}

// The password of an account as the device's web interface would hand it over.
std::string WebServer::_cipher(const Request &request) {
    const std::string name = request.get_param_value("account");
    const json model = _model();
    for (const json &account : model.at("accounts")) {
        if (account.at("name") == name) {
            return cockpit_.control().device().encrypt(account.at("password").get<std::string>());
        }
    }
    throw std::invalid_argument("the cloud has no account " + name);
}

json WebServer::_run(const json &body) {
    return {{"id", cockpit_.start(body.at("line"))}};
}

json WebServer::_spoil(const json &body) {
    return cockpit_.control().inject(body.at("fault"));
}

// An account that comes without a password keeps that of the account that it "was": a page that shows none
// sends none.
json WebServer::_change_cloud(const json &body) {
    json members = body;
    const json before = _model().at("accounts");
    if (members.contains("accounts")) {
        for (json &account : members["accounts"]) {
            for (const json &old : before) {
                if (!account.contains("password") && old.at("name") == account.value("was", "")) {
                    account["password"] = old.at("password");
                }
            }
            account.erase("was");
        }
    }
    const auto alive = cockpit_.control().device().hold();
    cockpit_.control().device().cloud().change(members);
    return json::object();
}

json WebServer::_offer(const json &body) {
    const std::string version = body.at("version");
    const size_t bytes = body.at("bytes");
    constexpr size_t kMostBytes = size_t{256} << 20U;
    if (bytes == 0 || bytes > kMostBytes) {
        throw std::invalid_argument("an image has 1 to " + std::to_string(kMostBytes) + " bytes");
    }
    offer_firmware(cockpit_.control().device(), cockpit_.control().image_server(), version, bytes);
    return json::object();
}

}  // namespace emulator
