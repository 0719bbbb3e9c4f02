// The download from nginx, a server of others, over HTTP and HTTPS.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>

#include "firmware_support.h"

namespace {

using namespace firmware;
using emulator::Process;
using program::file;
using program::printed;
using program::write_file;
using testing::ElementsAre;
using testing::HasSubstr;

namespace fs = std::filesystem;

constexpr size_t kSize = 300007;
const std::string kFolder = "/tmp/www";

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

// A port that nobody had a moment ago: nginx cannot choose one by itself.
int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), size), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size), 0);
    close(fd);
    return ntohs(address.sin_port);
}

bool answers(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    const bool connected = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    close(fd);
    return connected;
}

void openssl(Strings arguments) {
    arguments.insert(arguments.begin(), "openssl");
    const auto run = Process(std::move(arguments)).wait();
    ASSERT_EQ(run.status, 0) << run.err;
}

// An authority of our own, and a certificate by it for a name.
void make_certificate(const std::string &authority, const std::string &name) {
    const std::string key = kFolder + "/" + authority + ".key";
    const std::string root = kFolder + "/" + authority + ".pem";
    const std::string request = kFolder + "/server.csr";
    write_file(kFolder + "/san", "subjectAltName=DNS:" + name + "\n");
    openssl({"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=" + authority, "-days", "2",
             "-keyout", key, "-out", root});
    openssl({"req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=" + name, "-keyout",
             kFolder + "/server.key", "-out", request});
    openssl({"x509", "-req", "-in", request, "-CA", root, "-CAkey", key, "-CAcreateserial", "-days", "2",
             "-extfile", kFolder + "/san", "-out", kFolder + "/server.pem"});
}

// The device trusts whom its one file of certificates names.
void trust(const std::string &authority) {
    ASSERT_EQ(mount("tmpfs", "/etc/ssl/certs", "tmpfs", 0, nullptr), 0);
    fs::copy_file(kFolder + "/" + authority + ".pem", "/etc/ssl/certs/ca-certificates.crt");
}

class Nginx {
public:
    explicit Nginx(bool tls) : scheme_(tls ? "https" : "http") {
        for (int attempt = 0; attempt < 5 && !process_; ++attempt) {
            _start(tls);
        }
        EXPECT_TRUE(process_) << file(kFolder + "/error.log");
    }
    ~Nginx() {
        if (process_) {
            process_->kill(SIGTERM);
            static_cast<void>(process_->wait());
        }
    }
    Nginx(const Nginx &) = delete;
    Nginx &operator=(const Nginx &) = delete;

    [[nodiscard]] std::string url(const std::string &path) const {
        return scheme_ + "://localhost:" + std::to_string(port_) + path;
    }
    // Lines "METHOD PATH STATUS BYTES RANGE" of the requests up to now.
    static Strings log() {
        Strings lines;
        std::ifstream text(kFolder + "/access.log");
        for (std::string line; std::getline(text, line);) {
            lines.push_back(line);
        }
        return lines;
    }

private:
    void _start(bool tls) {
        port_ = free_port();
        const std::string listen = "listen 127.0.0.1:" + std::to_string(port_) + (tls ? " ssl;" : ";");
        const std::string keys = tls ? "ssl_certificate " + kFolder + "/server.pem; ssl_certificate_key " +
                                           kFolder + "/server.key;"
                                     : "";
        write_file(kFolder + "/nginx.conf",
                   "daemon off; master_process off; user root; pid " + kFolder +
                       "/pid;\n"
                       "events {}\nhttp {\n"
                       "log_format short '$request_method $uri $status $body_bytes_sent $http_range';\n"
                       "access_log " +
                       kFolder +
                       "/access.log short;\n"
                       "client_body_temp_path " +
                       kFolder + "/a; proxy_temp_path " + kFolder +
                       "/b; "
                       "fastcgi_temp_path " +
                       kFolder + "/c; uwsgi_temp_path " + kFolder +
                       "/d; "
                       "scgi_temp_path " +
                       kFolder +
                       "/e;\n"
                       "server { " +
                       listen + " root " + kFolder + "/site; " + keys +
                       " location /old/ { return 302 /fw.bin; } }\n}\n");
        process_.emplace(
            Strings{"/usr/sbin/nginx", "-e", kFolder + "/error.log", "-c", kFolder + "/nginx.conf"});
        while (!answers(port_)) {
            if (!process_->running()) {
                process_.reset();  // somebody took the port
                return;
            }
        }
    }

    std::string scheme_;
    int port_ = 0;
    std::optional<Process> process_;
};

class ForeignServer : public testing::TestWithParam<bool> {};

TEST_P(ForeignServer, GivesTheImageFreshResumedAndRedirected) {
    const bool tls = GetParam();
    Device device;
    fs::create_directories(kFolder + "/site");
    const std::string content = pattern(kSize);
    write_file(kFolder + "/site/fw.bin", content);
    if (tls) {
        make_certificate("authority", "localhost");
        trust("authority");
    }
    const Nginx nginx(tls);
    put_status_file();
    offer(device, nginx.url("/fw.bin"));
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    EXPECT_EQ(file(kFinished), content) << device.journal().text();
    EXPECT_THAT(file(kStatusFile), HasSubstr("\"fw_status\":\t2,\n\t\"dwProgress\":\t100"));

    write_file(kFinished, content.substr(0, 100003));
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    EXPECT_EQ(file(kFinished), content);

    unlink(kFinished.c_str());
    offer(device, nginx.url("/old/fw.bin"));
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    EXPECT_EQ(file(kFinished), content);

    EXPECT_THAT(Nginx::log(),
                ElementsAre("HEAD /fw.bin 200 0 -", "GET /fw.bin 200 300007 -", "HEAD /fw.bin 200 0 -",
                            "GET /fw.bin 206 200004 bytes=100003-", "HEAD /old/fw.bin 302 0 -",
                            "HEAD /fw.bin 200 0 -", testing::StartsWith("GET /old/fw.bin 302"),
                            "GET /fw.bin 200 300007 -"));
}

INSTANTIATE_TEST_SUITE_P(Schemes, ForeignServer, testing::Bool(),
                         [](const auto &row) { return row.param ? "Https" : "Http"; });

// Certificates that this device must not accept.
struct Certificate {
    const char *name;
    const char *authority;
    const char *trusted;
    const char *host;
};

class WrongCertificate : public testing::TestWithParam<Certificate> {};

TEST_P(WrongCertificate, IsRefused) {
    Device device;
    fs::create_directories(kFolder + "/site");
    write_file(kFolder + "/site/fw.bin", pattern(kSize));
    make_certificate("authority", "localhost");
    make_certificate(GetParam().authority, GetParam().host);
    trust(GetParam().trusted);
    const Nginx nginx(true);
    offer(device, nginx.url("/fw.bin"));
    put_status_file();
    EXPECT_THAT(watch({"download"}), ElementsAre("11 0", "20000 0", "20000 0", "start 0"));
    EXPECT_EQ(file(kFinished), "absent");
    EXPECT_THAT(Nginx::log(), testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Certificates, WrongCertificate,
                         testing::Values(Certificate{"OfAnotherAuthority", "other", "authority", "localhost"},
                                         Certificate{"ForAnotherHost", "other", "other", "example.com"}),
                         [](const auto &row) { return row.param.name; });

// HTTPS that breaks in the middle goes on where it broke.
TEST(Https, ResumesAfterDrops) {
    Device device;
    fs::create_directories(kFolder);
    make_certificate("authority", "localhost");
    trust("authority");
    ImageServer server(device.journal(), {kFolder + "/server.pem", kFolder + "/server.key"});
    const std::string content = pattern(kSize);
    server.put("/fw.bin", content);
    server.set_rules(json::parse(R"([{"method":"GET","do":{"drop_after":100000}}])"));
    offer(device, server.url("/fw.bin"));
    EXPECT_EQ(printed(device, {"download"}), "0\n");
    EXPECT_EQ(file(kFinished), content) << device.journal().text();
    EXPECT_EQ(requests(device).back(), "GET bytes=300000- 206 7");
}

}  // namespace
