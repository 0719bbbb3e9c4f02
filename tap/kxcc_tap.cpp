// kxcc-tap: stands between the broker and its clients, hands on every byte, and writes the journal of the
// messages.
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <span>

#include "cloud_owner.h"
#include "cloud_wire.h"
#include "tap_journal.h"
#include "tap_link.h"
#include "tap_options.h"
#include "tap_socket.h"

namespace {

constexpr size_t kMostLinks = 128;  // more clients wait in the socket's own queue
constexpr int kRetryMs = 2;         // until a busy broker is asked again
constexpr int kLookMs = 250;        // where the kernel does not report changes of a folder
constexpr int kLastCallMs = 50;     // for clients that came while the socket was given back
constexpr long kNsPerMs = 1000000;
constexpr unsigned kDrainS = 1;  // for a slow reader, at the end
constexpr int kStartS = 1;       // between a broker's bind and its listen
constexpr uint64_t kFileLimitKib = 4096;

volatile sig_atomic_t g_signals = 0;

void _count_signal(int /*signal*/) {
    g_signals = g_signals + 1;
}

// Of what placement new has made in memory of malloc().
struct PlacedReleaser {
    template <class Placed>
    void operator()(Placed *object) const {
        const std::unique_ptr<Placed, Releaser<free>> memory(object);
        object->~Placed();
    }
};
using LinkOwner = std::unique_ptr<TapLink, PlacedReleaser>;

class Tap {
public:
    Tap(TapSocket *socket, TapJournal *journal, int sink) : socket_(socket), journal_(journal), sink_(sink) {}

    [[nodiscard]] int run(bool wait);

private:
    enum Watched : size_t { kSink, kFolder, kListening, kLinks };

    bool _take();
    void _look();
    void _stop();
    void _accept();
    void _refuse(UniqueFd client);
    int _wait(const sigset_t *open);
    void _serve();

    TapSocket *socket_;
    TapJournal *journal_;
    int sink_;
    UniqueFd folder_;
    std::array<LinkOwner, kMostLinks> links_;
    size_t count_ = 0;
    std::array<pollfd, kLinks + kMostLinks * TapLink::kSides> watched_{};
    unsigned number_ = 0;
    timespec taken_{};
    bool retry_ = false;     // the broker had no room
    bool stopping_ = false;  // the socket is given back
    int status_ = 0;
};

bool Tap::_take() {
    const TapSocket::Taken taken = socket_->take();
    if (taken != TapSocket::Taken::kYes) {
        return taken == TapSocket::Taken::kNoSocket;
    }
    clock_gettime(CLOCK_MONOTONIC, &taken_);
    journal_->begin("tap");
    journal_->text("version", KXCC_TAP_VERSION);
    journal_->text("socket", socket_->path());
    journal_->number("began", static_cast<uint64_t>(time(nullptr)));
    journal_->end();
    return true;
}

void Tap::_stop() {
    if (!stopping_) {
        stopping_ = true;
        socket_->give_back();
        if (count_ > 0) {
            dprintf(STDERR_FILENO,
                    "kxcc-tap: %s is the broker's again; open connections: %u, a signal cuts them\n",
                    socket_->path(), static_cast<unsigned>(count_));
        }
    }
}

// A broker that starts anew puts a new socket in the place of ours.
void Tap::_look() {
    std::array<char, 4096> events;
    while (folder_.ok() && read(folder_.get(), events.data(), events.size()) > 0) {
    }
    if (stopping_) {
        return;
    }
    const TapSocket::Found found = socket_->look();
    if (found == TapSocket::Found::kBrokers) {  // --restore, or a hand, has put it there
        _stop();
    } else if (found == TapSocket::Found::kOther) {
        socket_->give_back();
        if (!_take()) {
            status_ = 1;
            _stop();
        }
    }
}

// The broker is gone: the client is let in and sees the connection close at once.
void Tap::_refuse(UniqueFd client) {
    journal_->begin("connect");
    journal_->number("connection", ++number_);
    journal_->end();
    TapLink gone(number_, std::move(client), UniqueFd());
    gone.write_end(journal_);
}

// One client: the broker first, so that a client whose turn has not come stays in the queue.
void Tap::_accept() {
    UniqueFd broker = socket_->connect_broker();
    const bool gone = !broker.ok() && (errno == ECONNREFUSED || errno == ENOENT);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (!broker.ok() && (!gone || now.tv_sec - taken_.tv_sec <= kStartS)) {
        retry_ = true;
        return;
    }
    UniqueFd client(accept4(socket_->listening(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client.ok()) {
        retry_ = errno != EAGAIN && errno != EINTR;
        return;
    }
    void *const room = gone ? nullptr : malloc(sizeof(TapLink));
    if (room == nullptr) {
        _refuse(std::move(client));
        return;
    }
    ucred who{};
    socklen_t size = sizeof who;
    static_cast<void>(getsockopt(client.get(), SOL_SOCKET, SO_PEERCRED, &who, &size));
    journal_->begin("connect");
    journal_->number("connection", ++number_);
    journal_->number("pid", static_cast<uint64_t>(who.pid));
    journal_->end();
    links_[count_++].reset(new (room) TapLink(number_, std::move(client), std::move(broker)));
}

int Tap::_wait(const sigset_t *open) {
    const bool accepts = count_ < kMostLinks && !retry_;
    watched_[kSink] = {sink_, static_cast<short>(journal_->waiting() ? POLLOUT : 0), 0};
    watched_[kFolder] = {folder_.get(), POLLIN, 0};
    watched_[kListening] = {accepts ? socket_->listening() : -1, POLLIN, 0};
    for (size_t i = 0; i < count_; ++i) {
        links_[i]->watch(
            std::span<pollfd, TapLink::kSides>(&watched_[kLinks + i * TapLink::kSides], TapLink::kSides));
    }
    int timeoutMs = folder_.ok() ? -1 : kLookMs;
    timeoutMs = stopping_ && count_ == 0 ? kLastCallMs : timeoutMs;
    timeoutMs = retry_ ? kRetryMs : timeoutMs;
    retry_ = false;
    const timespec time{0, timeoutMs * kNsPerMs};
    return ppoll(watched_.data(), kLinks + count_ * TapLink::kSides, timeoutMs < 0 ? nullptr : &time, open);
}

void Tap::_serve() {
    for (size_t i = count_; i-- > 0;) {
        const std::span<const pollfd, TapLink::kSides> mine(&watched_[kLinks + i * TapLink::kSides],
                                                            TapLink::kSides);
        const bool called = mine[0].revents != 0 || mine[1].revents != 0;
        if (called && !links_[i]->serve(mine, journal_)) {
            links_[i]->write_end(journal_);
            links_[i].swap(links_[--count_]);
            links_[count_].reset();
        }
    }
}

int Tap::run(bool wait) {
    sigset_t blocked;
    sigset_t open;
    sigemptyset(&blocked);
    struct sigaction action {};
    action.sa_handler = _count_signal;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&blocked, signal);
        sigaction(signal, &action, nullptr);
    }
    sigprocmask(SIG_BLOCK, &blocked, &open);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigdelset(&open, signal);
    }
    folder_.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    std::array<char, sizeof sockaddr_un::sun_path + 2> folder{"./"};
    if (const char *slash = strrchr(socket_->path(), '/')) {
        memcpy(folder.data(), socket_->path(), static_cast<size_t>(slash - socket_->path()) + 1);
        folder[static_cast<size_t>(slash - socket_->path()) + 1] = '\0';
    }
    if (inotify_add_watch(folder_.get(), folder.data(), IN_CREATE | IN_MOVED_TO) < 0) {
        folder_.reset();
    }
    if (!_take()) {
        return 1;
    }
    if (socket_->listening() < 0) {
        dprintf(STDERR_FILENO, "kxcc-tap: there is no %s%s\n", socket_->path(), wait ? " yet" : "");
        if (!wait) {
            return 1;
        }
    }
    int ends = 0;  // the journal's, that is
    while (g_signals + ends < 2) {
        if (g_signals + ends > 0) {
            _stop();
        }
        const int ready = _wait(&open);
        if (ready == 0 && stopping_ && count_ == 0) {
            break;
        }
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        _serve();
        if (watched_[kListening].revents != 0) {
            _accept();
        }
        if (watched_[kFolder].revents != 0 || !folder_.ok()) {
            _look();
        }
        const bool readerGone = (watched_[kSink].revents & (POLLERR | POLLNVAL)) != 0;
        if (ends == 0 && (!journal_->flush() || readerGone)) {
            const char *const why = errno != 0 ? strerror(errno) : readerGone ? "no reader" : "full";
            dprintf(STDERR_FILENO, "kxcc-tap: the journal: %s\n", why);
            ends = 1;
            sink_ = -1;
            status_ = 1;
        }
    }
    _stop();
    journal_->drain(kDrainS);
    return status_;
}

// The journal holds passwords: it is the own user's alone, and nothing that a stranger has put at its place.
UniqueFd _open_journal(const char *path) {
    constexpr mode_t kOwnersAlone = 0600;
    UniqueFd fd(
        open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, kOwnersAlone));
    struct stat status {};
    if (!fd.ok() || fstat(fd.get(), &status) != 0) {
        dprintf(STDERR_FILENO, "kxcc-tap: %s: %s\n", path, strerror(errno));
        return UniqueFd();
    }
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_uid != geteuid()) {
        dprintf(STDERR_FILENO, "kxcc-tap: %s is no plain file of the own user\n", path);
        return UniqueFd();
    }
    if (fchmod(fd.get(), kOwnersAlone) != 0 || ftruncate(fd.get(), 0) != 0) {
        dprintf(STDERR_FILENO, "kxcc-tap: %s: %s\n", path, strerror(errno));
        return UniqueFd();
    }
    return fd;
}

// A caller may have closed them: the broker's socket would take the place and receive the journal.
void _hold_standard_descriptors() {
    UniqueFd null;
    do {
        static_cast<void>(null.release());  // 0, 1 and 2 stay open
        null.reset(open("/dev/null", O_RDWR));
    } while (null.ok() && null.get() <= STDERR_FILENO);
}

}  // namespace

int main(int argc, char **argv) {
    _hold_standard_descriptors();
    Options options;
    const int parsed = parse_options(argc, argv, &options);
    if (parsed >= 0) {
        return parsed;
    }
    static_cast<void>(signal(SIGPIPE, SIG_IGN));
    TapSocket socket(options.socket);
    const TapSocket::Mended mended = socket.mend();
    if (options.restore || mended == TapSocket::Mended::kRunning || mended == TapSocket::Mended::kFailed) {
        if (mended == TapSocket::Mended::kNothing) {
            dprintf(STDERR_FILENO, "kxcc-tap: nothing is to be given back at %s\n", options.socket);
        }
        return mended == TapSocket::Mended::kRunning || mended == TapSocket::Mended::kFailed ? 1 : 0;
    }
    const UniqueFd file = options.journal != nullptr ? _open_journal(options.journal) : UniqueFd();
    if (options.journal != nullptr && !file.ok()) {
        return 1;
    }
    const int sink = file.ok() ? file.get() : STDOUT_FILENO;
    const uint64_t limit = options.limited ? options.limitKib : file.ok() ? kFileLimitKib : 0;
    TapJournal journal(sink, limit * kBytesPerKib);
    void *const room = journal.ok() ? malloc(sizeof(Tap)) : nullptr;
    if (room == nullptr) {
        dprintf(STDERR_FILENO, "kxcc-tap: no memory\n");
        return 1;
    }
    const std::unique_ptr<Tap, PlacedReleaser> tap(new (room) Tap(&socket, &journal, sink));
    return tap->run(options.wait);
}
