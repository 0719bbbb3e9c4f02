#include "probe.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <iterator>
#include <sstream>

#include "check.h"
#include "process.h"
#include "unix_socket.h"
#include "wire.h"

namespace emulator::check {
namespace {

constexpr size_t kGuard = 64;  // as in cloud_probe
constexpr char kFill = '\xaa';
constexpr int kPatienceMs = 60000;  // a first RSA key on a small processor, emulated

std::string _socket_path() {
    static int number = 0;
    return "/tmp/.probe-" + std::to_string(getpid()) + "-" + std::to_string(number++);
}

bool _readable(int fd) {
    pollfd input{fd, POLLIN, 0};
    return poll(&input, 1, kPatienceMs) > 0;
}

Descriptor _listening(const std::string &path) {
    Descriptor fd = bound_socket(SOCK_STREAM, path);
    listen(fd.get(), 1);
    return fd;
}

std::vector<std::string> _words_with(std::vector<std::string> words, const std::string &last) {
    words.push_back(last);
    return words;
}

}  // namespace

Probe::Probe(const Platform &platform, Library library) : Probe(platform, library, _socket_path()) {}

Probe::Probe(const Platform &platform, Library library, const std::string &path)
    : listening_(_listening(path)), process_(std::make_unique<Process>(_words_with(platform.probe, path))) {
    while (!fd_.ok()) {
        pollfd input{listening_.get(), POLLIN, 0};
        if (poll(&input, 1, 100) > 0) {
            fd_.reset(accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        }
        require(fd_.ok() || process_->running(), "the probe does not start: " + printed());
    }
    std::istringstream hello(_line("start"));
    std::string name;
    std::string order;
    hello >> name >> word_size_ >> order;
    require(name == "probe" && (order == "big" || order == "little"),
            platform.probe.front() + " is no probe");
    big_endian_ = order == "big";
    const bool store = library == Library::kWrapper;
    const std::string loaded =
        ask(std::string(store ? "wrapper " : "rsa ") + (store ? platform.wrapper : platform.rsa)).at(0);
    require(loaded == "0", loaded);
}

Probe::Probe(Probe &&) noexcept = default;

Probe::~Probe() = default;

std::string Probe::printed() const {
    return process_->out() + process_->err();
}

void Probe::kill() {
    process_->kill(SIGKILL);
}

std::vector<std::string> Probe::ask(const std::string &call) {
    write_all(fd_.get(), call + "\n");
    const std::string line = _line(call);
    if (line.starts_with('!')) {
        return {line.substr(2)};
    }
    std::istringstream words(line);
    return {std::istream_iterator<std::string>(words), {}};
}

std::string Probe::_line(const std::string &asked) {
    std::array<char, 65536> buffer{};
    size_t end = 0;
    while ((end = rest_.find('\n')) == std::string::npos) {
        const ssize_t size = _readable(fd_.get()) ? recv(fd_.get(), buffer.data(), buffer.size(), 0) : -1;
        if (size <= 0) {
            const std::string call = asked.substr(0, 60);
            require(size == 0, "no return from: " + call);
            const Run run = process_->wait();
            throw Failed("the process ended " +
                         (run.signal != 0 ? "by signal " + std::to_string(run.signal)
                                          : "with status " + std::to_string(run.status)) +
                         " in: " + call);
        }
        rest_.append(buffer.data(), static_cast<size_t>(size));
    }
    const std::string line = rest_.substr(0, end);
    rest_.erase(0, end + 1);
    return line;
}

std::string coded(const std::optional<std::string> &bytes) {
    if (!bytes) {
        return "-";
    }
    return bytes->empty() ? "=" : to_hex(*bytes);
}

std::optional<std::string> decoded(const std::string &word) {
    if (word == "-") {
        return std::nullopt;
    }
    return word == "=" ? std::string() : from_hex(word);
}

std::string output_of(const std::string &word) {
    std::string bytes = decoded(word).value_or(std::string(kGuard, kFill));
    const std::string guard = bytes.substr(bytes.size() - kGuard);
    require(guard == std::string(kGuard, kFill), "it wrote beyond the end of an output buffer");
    bytes.resize(bytes.size() - kGuard);
    return bytes;
}

std::string untouched(size_t size) {
    return std::string(size, kFill);
}

std::string pattern(size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    uint32_t state = seed * 2654435761U + 1;
    for (char &byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24U);
    }
    return bytes;
}

std::string letters(size_t size, unsigned seed) {
    std::string text = pattern(size, seed);
    for (char &byte : text) {
        byte = static_cast<char>('a' + static_cast<unsigned char>(byte) % 26);
    }
    return text;
}

}  // namespace emulator::check
