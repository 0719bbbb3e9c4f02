// The page's server: HTTP on loopback. Whoever asks must name a loopback host, know the token that stands in
// the address, and not come from another site's page: a browser that shows both must not lend one the other's
// rights.
//
//   GET  TOKEN/              the page and its files
//   GET  TOKEN/events        server-sent events: "records" (a list of the journal's), "runs", "state"
//   GET  TOKEN/journal       the journal, a file to keep; TOKEN/scenario: what was injected, as a scenario
//   GET  TOKEN/store, files, file?path=, cloud, cipher?account=
//   POST TOKEN/run {"line"}, spoil {"fault"}, cloud {members}, firmware {"version", "bytes"}
//
// Secrets are covered in all that goes out, unless the query has secrets=1.
#pragma once

#include <string>

#include "cockpit.h"
#include "http_server.h"

namespace httplib {
class DataSink;
struct Request;
struct Response;
}  // namespace httplib

namespace emulator {

class WebServer {
public:
    /// Serves when it returns. @param port  0: a free one. @throws std::runtime_error  it is not to be had.
    WebServer(Cockpit &cockpit, int port);

    /// Where the page is, with the token.
    [[nodiscard]] std::string address() const;

private:
    struct Reader;

    void _add_routes();
    void _get(const std::string &name, std::string (WebServer::*text)(const httplib::Request &));
    void _post(const std::string &name, json (WebServer::*act)(const json &));
    void _stream(const httplib::Request &request, httplib::Response &response);
    [[nodiscard]] bool _write_news(Reader &reader, httplib::DataSink &sink);

    [[nodiscard]] std::string _journal(const httplib::Request &request);
    [[nodiscard]] std::string _scenario(const httplib::Request &request);
    [[nodiscard]] std::string _store(const httplib::Request &request);
    [[nodiscard]] std::string _files(const httplib::Request &request);
    [[nodiscard]] std::string _file(const httplib::Request &request);
    [[nodiscard]] std::string _cloud(const httplib::Request &request);
    [[nodiscard]] std::string _cipher(const httplib::Request &request);
    [[nodiscard]] json _run(const json &body);
    [[nodiscard]] json _spoil(const json &body);
    [[nodiscard]] json _change_cloud(const json &body);
    [[nodiscard]] json _offer(const json &body);

    [[nodiscard]] json _model();

    Cockpit &cockpit_;
    const std::string token_;
    HttpServer server_;
};

}  // namespace emulator
