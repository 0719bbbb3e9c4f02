// A management daemon, as cloud_msg meets it: the three datagrams of a kick-off, and what else may come to
// its socket.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <thread>

#include "checks.h"
#include "kmpd.h"
#include "process.h"
#include "unix_socket.h"

namespace emulator::check {
namespace {

constexpr int kAnswerWaitMs = 1000;
constexpr size_t kPayloadOffset = 120;
constexpr std::string_view kIdentifier = "signalbooster425425425425425425m";
constexpr std::array<const char *, 3> kPayloads{"", "AQABAA==", "AQACAAEABQAACAAAAAAAAAKejGoBAQYAAAAAAA=="};

constexpr const char *kAnswers = "The daemon answers each datagram once, to the address that it came from.";
constexpr const char *kNone =
    "A datagram of another size, kind or identifier, with a length that does not fit its payload or with a "
    "payload "
    "without NUL is none of this program's. The daemon does nothing for it and goes on.";
constexpr const char *kNoAddress =
    "A sender without an address, or one whose address is gone, gets no answer. The daemon never waits for a "
    "sender "
    "that does not read.";

void _put_word(std::string &datagram, size_t offset, size_t value, bool bigEndian) {
    for (size_t i = 0; i < 4; ++i) {
        datagram[offset + (bigEndian ? 3 - i : i)] = static_cast<char>(value >> (8 * i));
    }
}

std::string _datagram(size_t step, bool bigEndian) {
    const std::string payload = kPayloads.at(step);
    std::string datagram(kDatagramSize, '\0');
    _put_word(datagram, 8, kPayloadOffset + payload.size(), bigEndian);
    _put_word(datagram, 12, step == 0 ? 0 : 1, bigEndian);
    datagram.replace(16, kIdentifier.size(), kIdentifier);
    datagram.replace(kPayloadOffset, payload.size(), payload);
    return datagram;
}

// The program's side of the channel; bound like it, or to nothing.
class Sender {
public:
    Sender(std::string daemon, const std::string &own) : daemon_(std::move(daemon)), own_(own) {
        fd_ = own.empty() ? Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
                          : bound_socket(SOCK_DGRAM, own);
    }
    Sender(const Sender &) = delete;
    Sender &operator=(const Sender &) = delete;
    ~Sender() {
        if (!own_.empty()) {
            unlink(own_.c_str());
        }
    }
    // @return false where the daemon has no room for it, or is not there.
    [[nodiscard]] bool send(std::string_view datagram) const {
        const sockaddr_un to = socket_address(daemon_);
        return sendto(fd_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT,
                      reinterpret_cast<const sockaddr *>(&to), sizeof to) >= 0;
    }
    // Sends once there is room.
    void deliver(std::string_view datagram) const {
        constexpr int kTries = 1000;
        for (int i = 0; i < kTries; ++i) {
            if (send(datagram)) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        throw Failed("the daemon takes no datagram at " + daemon_);
    }
    [[nodiscard]] int answers(int waitMs) const {
        int count = 0;
        pollfd input{fd_.get(), POLLIN, 0};
        for (std::array<char, 64> start{}; poll(&input, 1, count == 0 ? waitMs : 100) > 0; ++count) {
            static_cast<void>(recv(fd_.get(), start.data(), start.size(), 0));
        }
        return count;
    }

private:
    const std::string daemon_;
    const std::string own_;
    Descriptor fd_;
};

class Part {
public:
    explicit Part(const Neighbour &daemon)
        : socket_(daemon.socket.empty() ? kKmpdPath : daemon.socket), big_endian_(daemon.big_endian) {
        if (!daemon.command.empty()) {
            process_.emplace(daemon.command);
        } else if (daemon.socket.empty()) {
            own_ = std::make_unique<Kmpd>(journal_, KmpdReply::kAnswer, big_endian_);
        }
    }
    [[nodiscard]] Sender sender(const std::string &own = "/tmp/cloud_msg_unix") const {
        return {socket_, own};
    }
    [[nodiscard]] bool big_endian() const { return big_endian_; }
    void kick_off() const {
        const Sender program = sender();
        for (size_t step = 0; step < kPayloads.size(); ++step) {
            program.deliver(_datagram(step, big_endian_));
            const int answers = program.answers(kAnswerWaitMs);
            require(answers == 1, "datagram " + std::to_string(step + 1) + " of a kick-off got " +
                                      std::to_string(answers) + " answers within a second");
        }
    }
    [[nodiscard]] std::string end() {
        return process_ && !process_->running() ? "the daemon has ended: " + process_->err() : "";
    }

private:
    const std::string socket_;
    const bool big_endian_;
    std::optional<Process> process_;
    Journal journal_;
    std::unique_ptr<Kmpd> own_;
};

struct Odd {
    const char *name;
    std::function<void(std::string &datagram, bool bigEndian)> spoil;
};

const std::vector<Odd> &_odd() {
    static const std::vector<Odd> kRows{
        {"empty", [](std::string &datagram, bool) { datagram.clear(); }},
        {"short", [](std::string &datagram, bool) { datagram.resize(11); }},
        {"one-less", [](std::string &datagram, bool) { datagram.pop_back(); }},
        {"long", [](std::string &datagram, bool) { datagram.resize(2 * kDatagramSize); }},
        {"kind", [](std::string &datagram, bool big) { _put_word(datagram, 12, 7, big); }},
        {"identifier",
         [](std::string &datagram, bool) { datagram.replace(16, kIdentifier.size() + 80, 112, 'x'); }},
        {"length", [](std::string &datagram, bool big) { _put_word(datagram, 8, 0xFFFFFFFF, big); }},
        {"byte-order", [](std::string &datagram, bool big) { datagram = _datagram(2, !big); }},
        {"endless", [](std::string &datagram, bool) { datagram.replace(kPayloadOffset, 10240, 10240, 'A'); }},
    };
    return kRows;
}

}  // namespace

Checks kmpd_checks(const Neighbour &daemon) {
    const auto row = [&daemon](std::string name, const char *sentence, std::function<void(Part &)> work) {
        return Check{"kmpd/" + std::move(name), kKmpdPage, sentence, [daemon, work = std::move(work)] {
                         Part part(daemon);
                         try {
                             part.kick_off();
                             work(part);
                             part.kick_off();
                         } catch (const Failed &failure) {
                             const std::string end = part.end();
                             throw Failed(failure.what() + (end.empty() ? end : "\n" + end));
                         }
                     }};
    };
    Checks checks{
        row("kick-off", kAnswers, [](Part &) {}),
        row("own-address", kAnswers,
            [](Part &part) {
                const Sender other = part.sender("/tmp/another_unix");
                other.deliver(_datagram(0, part.big_endian()));
                require(other.answers(kAnswerWaitMs) == 1, "a sender at another address got no answer");
            }),
        row("no-address", kNoAddress,
            [](Part &part) { part.sender("").deliver(_datagram(1, part.big_endian())); }),
        row("gone", kNoAddress,
            [](Part &part) {
                const Sender gone = part.sender("/tmp/gone_unix");
                unlink("/tmp/gone_unix");  // before the daemon can be quick enough to answer
                gone.deliver(_datagram(1, part.big_endian()));
            }),
        row("never-reads", kNoAddress,
            [](Part &part) {
                const Sender lazy = part.sender("/tmp/lazy_unix");
                for (int i = 0; i < 100; ++i) {
                    lazy.deliver(_datagram(1, part.big_endian()));
                }
            }),
    };
    for (const Odd &odd : _odd()) {
        checks.push_back(row(std::string("odd/") + odd.name, kNone, [&odd](Part &part) {
            std::string datagram = _datagram(1, part.big_endian());
            odd.spoil(datagram, part.big_endian());
            part.sender("/tmp/odd_unix").deliver(datagram);
        }));
    }
    return checks;
}

}  // namespace emulator::check
