// The page's server: HTTP on loopback. A request must name a loopback host, have the token in its path, and
// not come from another site's page: such a page in the same browser must not reach the device.
//
//   GET  TOKEN/              the page and its files
//   GET  TOKEN/events        server-sent events: "codes" (first, once), then "records" (a list of the
//                            journal's, each with its arrows), "runs", "state"
//   GET  TOKEN/journal       the journal, a file to keep; TOKEN/scenario: what was injected, as a scenario
//   GET  TOKEN/store, files, file?path=, cloud, cipher?account=
//   POST TOKEN/run {"line"}, spoil {"fault"}, cloud {members}, firmware {"version", "bytes"}
//
// Secrets are covered in what GET answers with, unless the query has secrets=1, and in the errors of POST.
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
    /// Serves when it returns. The cockpit must outlive it.
    /// @param port  0: a free one.
    /// @throws std::runtime_error  the port is not to be had.
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
