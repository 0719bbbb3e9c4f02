#include "control_socket.h"

#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>

#include "process.h"
#include "unix_socket.h"

namespace emulator {
namespace {

constexpr std::string_view kPrefix = "extender/";
constexpr const char *kNameVariable = "EXTENDER_DEVICE";
constexpr int kLastFreeName = 1000;
constexpr size_t kLongestLine = size_t{1} << 20U;
constexpr size_t kStdio = 3;
constexpr std::chrono::milliseconds kLookEvery{200};
constexpr int kPatienceMs = 2000;  // after a hang-up

struct Address {
    explicit Address(const std::string &name) {
        const std::string text = std::string(kPrefix) + name;
        value.sun_family = AF_UNIX;  // a NUL first: no file
        text.copy(value.sun_path + 1, sizeof value.sun_path - 1);
        size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 +
                                      std::min(text.size(), sizeof value.sun_path - 1));
    }
    [[nodiscard]] const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&value); }
    sockaddr_un value{};
    socklen_t size = 0;
};

Descriptor _stream() {
    return Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

bool _same_user(int fd) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == geteuid();
}

// One line, and the descriptors that came with it.
struct Line {
    std::string text;
    std::vector<Descriptor> descriptors;
};

// Reads to the end of a line and not beyond. @return none at an end before it, or for a line without end.
std::optional<Line> _read_line(int fd) {
    Line line;
    for (char byte = 0; line.text.size() < kLongestLine;) {
        iovec part{&byte, 1};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(kStdio * sizeof(int))> room{};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = room.data();
        message.msg_controllen = room.size();
        const ssize_t size = recvmsg(fd, &message, MSG_CMSG_CLOEXEC);
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size <= 0) {
            return {};
        }
        for (cmsghdr *head = CMSG_FIRSTHDR(&message); head != nullptr; head = CMSG_NXTHDR(&message, head)) {
            for (size_t at = 0; head->cmsg_type == SCM_RIGHTS && CMSG_LEN(at + sizeof(int)) <= head->cmsg_len;
                 at += sizeof(int)) {
                int one = -1;
                std::memcpy(&one, CMSG_DATA(head) + at, sizeof one);
                line.descriptors.emplace_back(one);
            }
        }
        if (byte == '\n') {
            return line;
        }
        line.text += byte;
    }
    return {};
}

void _send_line(int fd, const json &value) {
    write_all(fd, dump(value) + '\n');
}

bool _hung_up(int fd) {
    pollfd one{fd, POLLRDHUP, 0};
    return poll(&one, 1, 0) > 0;
}

// Starts a command on the guest's terminal, in a session of its own: the emulator's terminal is another.
pid_t _spawn(std::vector<std::string> argv, const std::vector<Descriptor> &stdio, const std::string &term) {
    std::vector<std::string> variables{"TERM=" + term};
    for (char **entry = environ; *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, "TERM=", 5) != 0) {
            variables.emplace_back(*entry);
        }
    }
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        sigaddset(&defaults, signal);
    }
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGDEF);
    for (size_t i = 0; i < stdio.size(); ++i) {
        posix_spawn_file_actions_adddup2(&actions, stdio[i].get(), static_cast<int>(i));
    }
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argv.at(0).c_str(), &actions, &attributes,
                                   exec_pointers(argv).data(), exec_pointers(variables).data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), argv[0]);
    }
    return pid;
}

std::set<std::string> _running_devices() {
    std::set<std::string> names;
    std::ifstream file("/proc/net/unix");
    for (std::string line; std::getline(file, line);) {
        const size_t at = line.find(" @" + std::string(kPrefix));
        if (at != std::string::npos) {
            names.insert(line.substr(at + 2 + kPrefix.size()));
        }
    }
    return names;
}

Descriptor _connect(const std::string &name) {
    Descriptor device = _stream();
    const Address address(name);
    const bool there = connect(device.get(), address.get(), address.size) == 0 && _same_user(device.get());
    return there ? std::move(device) : Descriptor();
}

}  // namespace

ControlSocket::ControlSocket(Control &control, const std::string &name) : control_(control), name_(name) {
    listening_ = _stream();
    for (int i = 1;; ++i) {
        name_ = name.empty() ? std::to_string(i) : name;
        const Address address(name_);
        if (bind(listening_.get(), address.get(), address.size) == 0) {
            break;
        }
        if (!name.empty() || i == kLastFreeName) {
            throw std::runtime_error("a device of the name " + name_ + " runs already");
        }
    }
    listen(listening_.get(), SOMAXCONN);
    setenv(kNameVariable, name_.c_str(), 1);
    acceptor_ = std::thread([this] { _accept_loop(); });
}

ControlSocket::~ControlSocket() {
    stopping_ = true;
    shutdown(listening_.get(), SHUT_RDWR);  // ends the wait in accept
    acceptor_.join();
    for (Guest &guest : guests_) {
        shutdown(guest.socket.get(), SHUT_RD);  // its thread may still write what is left
        guest.thread.join();
    }
}

void ControlSocket::_accept_loop() {
    for (;;) {
        Descriptor socket(accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (stopping_ || !socket.ok()) {
            return;
        }
        guests_.remove_if([](Guest &guest) {
            const bool ended = guest.ended;
            if (ended) {
                guest.thread.join();
            }
            return ended;
        });
        const timeval patience{5, 0};  // a guest that does not read must not keep the device from ending
        setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        if (!_same_user(socket.get())) {
            _send_line(socket.get(), {{"error", "the device is another user's"}});
            continue;
        }
        Guest &guest = guests_.emplace_back();
        guest.socket = std::move(socket);
        guest.thread = std::thread([this, &guest] {
            _serve(guest.socket);
            shutdown(guest.socket.get(), SHUT_RDWR);
            guest.ended = true;
        });
    }
}

void ControlSocket::_serve(const Descriptor &guest) {
    while (std::optional<Line> line = _read_line(guest.get())) {
        try {
            const json request = json::parse(line->text);
            const std::string what = request.at("do");
            if (what == "exec") {
                _exec(guest, request, std::move(line->descriptors));
            } else if (what == "inject") {
                _send_line(guest.get(), {{"action", control_.inject(request.at("fault"))}});
            } else if (what == "state") {
                _send_line(guest.get(), control_.state());
            } else if (what == "scenario") {
                _send_line(guest.get(), control_.scenario());
            } else if (what == "journal") {
                _send_journal(guest, request);
            } else {
                _send_line(guest.get(), {{"error", "there is no request \"" + what + "\""}});
            }
        } catch (const std::exception &error) {
            _send_line(guest.get(), {{"error", error.what()}});
        }
    }
}

void ControlSocket::_exec(const Descriptor &guest, const json &request, std::vector<Descriptor> stdio) {
    const std::vector<std::string> argv = request.at("argv");
    if (argv.empty() || stdio.size() != kStdio) {
        throw std::invalid_argument("a command and three descriptors are needed");
    }
    control_.note_start(argv);  // before all that the command does
    pid_t pid = -1;
    try {
        pid = _spawn(argv, stdio, request.value("term", "dumb"));
    } catch (const std::system_error &) {
        control_.note_end(argv, kNoCommand);
        throw;
    }
    stdio.clear();
    const Descriptor pidfd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    std::array<pollfd, 2> inputs{{{pidfd.get(), POLLIN, 0}, {guest.get(), POLLIN, 0}}};
    while (poll(inputs.data(), inputs.size(), -1) < 0 || inputs[0].revents == 0) {
        const std::optional<Line> line = inputs[1].revents != 0 ? _read_line(guest.get()) : Line{"{}", {}};
        if (!line) {
            kill(-pid, SIGHUP);
            if (poll(inputs.data(), 1, kPatienceMs) == 0) {
                kill(-pid, SIGKILL);
            }
            break;
        }
        const json more = json::parse(line->text, nullptr, false);
        if (more.is_object() && more.contains("signal") && more.at("signal").is_number_integer()) {
            kill(-pid, more.at("signal").get<int>());
        }
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    const int code = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    control_.device().settle(kLookEvery);
    control_.note_end(argv, code);
    _send_line(guest.get(), {{"status", code}});
}

void ControlSocket::_send_journal(const Descriptor &guest, const json &request) {
    const bool follow = request.value("follow", false);
    int seq = request.value("after", 0);
    for (bool last = false; !last && !(_hung_up(guest.get()) && !stopping_);) {
        last = stopping_ || !follow;  // then what is there now is all
        for (const json &record :
             control_.journal().await_after(seq, follow ? kLookEvery : kLookEvery.zero())) {
            _send_line(guest.get(), record);
            seq = record.at("seq");
        }
    }
    shutdown(guest.get(), SHUT_RDWR);
}

Descriptor join_device(const std::string &name) {
    const char *const own = std::getenv(kNameVariable);
    const std::string wanted = name.empty() && own != nullptr ? own : name;
    if (!wanted.empty()) {
        Descriptor device = _connect(wanted);
        if (!device.ok()) {
            throw std::runtime_error("no device of yours has the name " + wanted);
        }
        return device;
    }
    Descriptor found;
    std::string names;
    for (const std::string &one : _running_devices()) {
        if (Descriptor device = _connect(one); device.ok()) {
            names += " " + one;
            found = std::move(device);
        }
    }
    if (names.empty()) {
        throw std::runtime_error("no device runs (extender shell begins one)");
    }
    if (names.find(' ', 1) != std::string::npos) {
        throw std::runtime_error("several devices run; say which one with --device:" + names);
    }
    return found;
}

void send_request(const Descriptor &device, const json &request, bool stdio) {
    const std::string text = dump(request) + '\n';
    const std::array<int, kStdio> descriptors{STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};
    std::string_view rest = text;
    if (stdio) {
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof descriptors)> room{};
        iovec part{const_cast<char *>(text.data()), 1};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = room.data();
        message.msg_controllen = room.size();
        cmsghdr *const head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(sizeof descriptors);
        std::memcpy(CMSG_DATA(head), descriptors.data(), sizeof descriptors);
        if (sendmsg(device.get(), &message, MSG_NOSIGNAL) != 1) {
            throw std::system_error(errno, std::generic_category(), "the device");
        }
        rest.remove_prefix(1);
    }
    write_all(device.get(), rest);
}

json read_answer(const Descriptor &device) {
    const std::optional<Line> line = _read_line(device.get());
    const json answer =
        line ? json::parse(line->text, nullptr, false) : json{{"error", "the device has ended"}};
    if (answer.is_discarded() || answer.contains("error")) {
        throw std::runtime_error(answer.is_discarded() ? "no answer of a device"
                                                       : answer.at("error").get<std::string>());
    }
    return answer;
}

}  // namespace emulator
