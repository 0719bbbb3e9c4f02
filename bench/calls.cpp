// calls: what single calls of the libraries take, beside the same bytes by bare system calls: round trips of
// the client library, its callbacks, a line of the program's log. All on one processor, the other side
// included, so that waking another one is not what is measured. Prints a table.
#include <fcntl.h>
#include <kxcc.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "broker.h"
#include "cloud_util.h"
#include "figure.h"
#include "namespace.h"
#include "unix_socket.h"
#include "wire.h"

namespace {

using emulator::encode_frame;
using emulator::kMagic;

constexpr int kRounds = 30;
constexpr int kCallsARound = 1000;
constexpr int kPending = 10;
constexpr const char *kRequest = R"({"method":"getWeather","params":{}})";
const std::string kAsked = encode_frame(kMagic, emulator::kLink, 0, "");
const std::string kSubmitted =
    R"({"request":"{\"method\":\"getWeather\",\"params\":{}}","timeout":5000,"flag":0})";

std::string _frame(int type, const std::string &body) {
    return encode_frame(kMagic, type, body.size(), body);
}

// A broker with no more in it than the wire asks for: messages are there whole, and each has one answer.
class Responder {
public:
    explicit Responder(const char *path) {
        emulator::Descriptor listening = emulator::bound_socket(SOCK_STREAM, path);
        if (listen(listening.get(), SOMAXCONN) != 0 || (pid_ = fork()) < 0) {
            throw std::system_error(errno, std::generic_category(), path);
        }
        if (pid_ == 0) {
            _serve(listening.get());
        }
    }
    ~Responder() { kill(pid_, SIGKILL); }
    Responder(const Responder &) = delete;
    Responder &operator=(const Responder &) = delete;

private:
    [[noreturn]] static void _serve(int listening) {
        std::vector<pollfd> watched{{listening, POLLIN, 0}};
        std::array<char, 4096> buffer{};
        for (int id = 0;;) {
            poll(watched.data(), watched.size(), -1);
            for (size_t i = 1; i < watched.size(); ++i) {
                const ssize_t size =
                    watched[i].revents != 0 ? read(watched[i].fd, buffer.data(), buffer.size()) : -1;
                if (size > 0) {
                    _answer_all(watched[i].fd, {buffer.data(), static_cast<size_t>(size)}, id);
                } else if (size == 0) {
                    close(watched[i].fd);
                    watched[i].fd = -1;  // which poll passes over
                }
            }
            if (watched[0].revents != 0) {
                watched.push_back({accept(listening, nullptr, nullptr), POLLIN, 0});
                emulator::write_all(watched.back().fd,
                                    _frame(emulator::kAccept, R"({"errorcode":0,"result":0})"));
            }
        }
    }

    // The callback thread asks for all that is pending at once.
    static void _answer_all(int fd, std::string_view messages, int &id) {
        while (messages.size() >= emulator::kHeaderSize) {
            const size_t size = emulator::kHeaderSize + emulator::decode_number(messages.substr(4, 4));
            _answer(fd, messages.substr(0, size), id);
            messages.remove_prefix(std::min(size, messages.size()));
        }
    }

    static void _answer(int fd, std::string_view message, int &id) {
        const int type = static_cast<unsigned char>(message[3]);
        const size_t digits = message.find_first_of("0123456789", emulator::kHeaderSize);
        switch (type) {
            case emulator::kSubmit:
                emulator::write_all(fd,
                                    _frame(type + 1, R"({"errorcode":0,"id":)" + std::to_string(++id) + "}"));
                return;
            case emulator::kPoll:  // {"id":N}, and nothing else in it
                emulator::write_all(
                    fd, _frame(type + 1, R"({"id":)" +
                                             std::string(message.substr(digits, message.find('}') - digits)) +
                                             R"(,"errorcode":0,"response":"{\"error_code\":0}"})"));
                return;
            default:
                emulator::write_all(fd, _frame(type + 1, R"({"errorcode":0,"status":2})"));
        }
    }

    pid_t pid_ = -1;
};

// The same bytes by bare calls.
class BareClient {
public:
    BareClient() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = emulator::socket_address(emulator::kBrokerPath);
        if (connect(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            _read() <= 0) {
            throw std::system_error(errno, std::generic_category(), emulator::kBrokerPath);
        }
    }
    void exchange(const std::string &frame) {
        emulator::write_all(fd_.get(), frame);
        if (_read() <= 0) {
            throw std::runtime_error("the responder has gone");
        }
    }

private:
    ssize_t _read() { return read(fd_.get(), buffer_.data(), buffer_.size()); }

    emulator::Descriptor fd_;
    std::array<char, 4096> buffer_{};
};

double _time(const std::function<void()> &call) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kCallsARound; ++i) {
        call();
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void _compare(const char *work, const char *unit, const std::function<void()> &bare,
              const std::function<void()> &ours, bool as_rate, const char *limit) {
    std::vector<double> quotients;
    for (int round = 0; round < kRounds; ++round) {
        const double least = _time(bare);
        const double taken = _time(ours);
        quotients.push_back(as_rate ? least / taken : taken / least);
    }
    print_figure(work, unit, emulator::spread(quotients), limit);
}

void _check(bool good) {
    if (!good) {
        throw std::runtime_error("a call has failed");
    }
}

std::atomic<int> g_answered{0};

// Answers a second while some requests are pending, from the first submit to the last callback.
double _callback_rate() {
    g_answered = 0;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kPending; ++i) {
        _check(kxcc_send_request_async(kRequest, 30000, 0, [](int32_t, const char *) {
                   ++g_answered;
                   g_answered.notify_one();
               }) > 0);
    }
    for (int count = 0; (count = g_answered) < kPending;) {
        g_answered.wait(count);
    }
    return kPending / std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void _log_line() {
    _compare(
        "log line on the console", "time / (open, write, close)",
        [] {
            constexpr char kLine[] = "downloading: 50%\n";
            const int fd = open("/dev/console", O_WRONLY | O_NOCTTY | O_CLOEXEC);
            _check(write(fd, kLine, sizeof kLine - 1) > 0);
            close(fd);
        },
        [] { _check(cloud_util_printf("downloading: %d%%", 50) == 0); }, false, "1");
}

}  // namespace

int main() try {
    emulator::enter_device();
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    sched_setaffinity(0, sizeof one, &one);
    // The console of a device that nobody looks at.
    if (mount("/dev/null", "/dev/console", "none", MS_BIND, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "/dev/console");
    }
    const Responder responder(emulator::kBrokerPath);
    BareClient bare;
    const std::string submit = _frame(emulator::kSubmit, kSubmitted);
    const std::string ask = _frame(emulator::kPoll, R"({"id":1})");

    print_head();
    _compare(
        "status of the link", "round trips a second / bare socket's", [&] { bare.exchange(kAsked); },
        [] { _check(kxcc_get_link_status() == 2); }, true, "1");
    _compare(
        "submit, then ask", "round trips a second / bare socket's",
        [&] {
            bare.exchange(submit);
            bare.exchange(ask);
        },
        [] {
            char *text = nullptr;
            const int32_t id = kxcc_send_request_async(kRequest, 5000, 0, nullptr);
            _check(id > 0 && kxcc_get_response(id, &text) == 0);
            free(text);
        },
        true, "1");
    _log_line();
    std::vector<double> rates;
    for (int round = 0; round < 3; ++round) {
        rates.push_back(_callback_rate());
    }
    print_figure("callbacks, ten requests pending", "answers a second", emulator::spread(rates),
                 "10: one in 100 ms");
    return 0;
} catch (const std::exception &error) {
    std::fprintf(stderr, "calls: %s\n", error.what());
    return 1;
}
