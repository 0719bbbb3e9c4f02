#include "image_scenario.h"

#include <sys/mount.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include "document.h"
#include "namespace.h"
#include "process.h"

namespace emulator {
namespace {

constexpr std::array kMembers{Member{"rules", Kind::kList}, Member{"tls", Kind::kFlag},
                              Member{"trusted", Kind::kFlag}};
constexpr const char *kTrickle = R"([{"method": "GET", "do": {"trickle": {"bytes": 20000, "ms": 20}}}])";
constexpr const char *kAuthorities = "/etc/ssl/certs/ca-certificates.crt";

// A certificate that is its own authority.
TlsFiles _make_certificate() {
    const std::string folder = kPrivateFolder;
    TlsFiles files{folder + "/image.pem", folder + "/image.key"};
    const Run run = Process({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "30",
                             "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost", "-out",
                             files.certificate, "-keyout", files.key})
                        .wait();
    if (run.status != 0) {
        throw std::runtime_error("openssl: " + run.err);
    }
    return files;
}

// Mounts a longer list over the host's, in this device's namespace only.
void _trust(const std::string &certificate) {
    const std::string list = std::string(kPrivateFolder) + "/authorities.crt";
    std::ofstream(list) << std::ifstream(kAuthorities).rdbuf() << std::ifstream(certificate).rdbuf();
    if (mount(list.c_str(), kAuthorities, "none", MS_BIND, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), kAuthorities);
    }
}

}  // namespace

std::unique_ptr<ImageServer> make_image_server(Journal &journal, const json &image) {
    check_members(image, kMembers, "the scenario's \"image\"");
    TlsFiles files;
    if (image.value("tls", false)) {
        files = _make_certificate();
        if (image.value("trusted", true)) {
            _trust(files.certificate);
        }
    }
    auto server = std::make_unique<ImageServer>(journal, files);
    server->set_rules(image.contains("rules") ? image.at("rules") : slow_image_rules());
    return server;
}

json slow_image_rules() {
    return json::parse(kTrickle);
}

}  // namespace emulator
