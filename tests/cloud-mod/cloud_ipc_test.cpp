// Framing on socket pairs, with every byte typed by hand; and the log.
#include "cloud_ipc.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <kxcc.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "cloud_log.h"
#include "cloud_mod_support.h"
#include "cloud_owner.h"
#include "cloud_time.h"

using testing::ElementsAre;
using testing::MatchesRegex;

namespace {

constexpr char kLogUnit[] = "unit";
constexpr const char *kIpc = "../cloud-mod/util/cloud_ipc";

std::string operator""_b(const char *bytes, size_t size) {
    return {bytes, size};
}

class Pair {
public:
    explicit Pair(int kind = SOCK_STREAM) {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, kind, 0, fds), 0);
        library = UniqueFd(fds[0]);
        peer = UniqueFd(fds[1]);
    }
    void put(const std::string &bytes) const {
        EXPECT_EQ(write(peer.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // Everything until the library's end is closed.
    std::string rest() {
        library.reset();
        std::string all;
        char buffer[4096];
        for (ssize_t size = 0; (size = read(peer.get(), buffer, sizeof(buffer))) > 0;) {
            all.append(buffer, static_cast<size_t>(size));
        }
        return all;
    }
    UniqueFd library;
    UniqueFd peer;
};

TEST(IpcSend, WritesHeaderAndBodyInOneSystemCall) {
    const struct {
        uint32_t type;
        const char *text;
        std::string bytes;
    } rows[] = {
        {64, R"({"a":1})", "\xA1\xB2\x00\x40\x00\x00\x00\x07{\"a\":1}"_b},
        {96, nullptr, "\xA1\xB2\x00\x60\x00\x00\x00\x00"_b},
        {0x10042, "", "\xA1\xB2\x00\x42\x00\x00\x00\x00"_b},
    };
    for (const auto &row : rows) {
        const Pair pair(SOCK_SEQPACKET);  // keeps the limits of what was written at once
        ASSERT_EQ(cloud_ipc_send(pair.library.get(), row.type, row.text), 0);
        char buffer[100];
        const ssize_t size = read(pair.peer.get(), buffer, sizeof(buffer));
        EXPECT_EQ(std::string(buffer, static_cast<size_t>(size)), row.bytes);
    }
}

TEST(IpcSend, GoesOnAfterPartialTransfers) {
    Pair pair;
    std::string text;
    for (int i = 0; i < 300000; ++i) {
        text += std::to_string(i);  // no period, so that a piece in the wrong place shows
    }
    int32_t sent = -1;
    std::thread sender([&] {
        sent = cloud_ipc_send(pair.library.get(), 64, text.c_str());
        shutdown(pair.library.get(), SHUT_WR);
    });
    std::string got;
    char buffer[777];
    for (ssize_t size = 0; (size = read(pair.peer.get(), buffer, sizeof(buffer))) > 0;) {
        got.append(buffer, static_cast<size_t>(size));
    }
    sender.join();
    EXPECT_EQ(sent, 0);
    EXPECT_TRUE(got == frame(64, text));
}

TEST(IpcSend, LogsWhatOfHeaderOrBodyWasWritten) {
    signal(SIGPIPE, SIG_IGN);
    Pair closed;
    closed.peer.reset();
    Log header(1);
    EXPECT_EQ(cloud_ipc_send(closed.library.get(), 80, "{}"), KXCC_ERROR_SEND);
    EXPECT_EQ(header.of(kIpc), "write message header error, n:-1");

    Pair full;  // takes a part, then the time-out of the socket strikes
    const timeval soon{0, 1000};
    setsockopt(full.library.get(), SOL_SOCKET, SO_SNDTIMEO, &soon, sizeof(soon));
    const std::string text(8 << 20, 'x');
    Log body(1);
    EXPECT_EQ(cloud_ipc_send(full.library.get(), 80, text.c_str()), KXCC_ERROR_SEND);
    EXPECT_EQ(body.of(kIpc), "write message error, n:" + std::to_string(full.rest().size() - 8));
}

char l_untouched[] = "untouched";

struct Incoming {
    const char *name;
    std::string bytes;
    bool closed;
    int32_t result;
    const char *body;  // l_untouched: left as it was
    const char *logged;
    friend void PrintTo(const Incoming &row, std::ostream *out) { *out << row.name; }
};

class IpcReceive : public testing::TestWithParam<Incoming> {};

TEST_P(IpcReceive, ReturnsItsCode) {
    const Incoming &row = GetParam();
    Pair pair;
    pair.put(row.bytes);
    if (row.closed) {
        pair.peer.reset();
    }
    char *body = l_untouched;
    uint32_t type = 0;
    Log log(1);
    EXPECT_EQ(cloud_ipc_recv(pair.library.get(), &type, &body), row.result);
    EXPECT_EQ(log.of(kIpc), row.logged);
    ASSERT_EQ(body == l_untouched, row.body == l_untouched);
    EXPECT_STREQ(body, row.body);
    if (body != l_untouched) {
        EXPECT_EQ(type, 67U);
        free(body);
    }
}

const std::string kAnswer100 = "\xA1\xB2\x00\x43\x00\x00\x00\x64{\"cut\""_b;
INSTANTIATE_TEST_SUITE_P(
    Case, IpcReceive,
    testing::Values(
        Incoming{"Message", "\xA1\xB2\x00\x43\x00\x00\x00\x02{}"_b, false, 0, "{}", ""},
        Incoming{"NoBody", "\xA1\xB2\x00\x43\x00\x00\x00\x00"_b, false, 0, l_untouched, ""},
        Incoming{"Closed", "", true, -2002, l_untouched, ""},
        Incoming{"Silence", "", false, -2002, l_untouched, "message header receive error, n:-1"},
        Incoming{"HalfHeader", "\xA1\xB2\x00\x43\x00"_b, true, -2002, l_untouched,
                 "message header receive error, n:5"},
        Incoming{"SwappedMagic", "\xB2\xA1\x00\x43\x00\x00\x00\x00"_b, false, -1000, l_untouched,
                 "message header magic error"},
        Incoming{"CutByClose", kAnswer100, true, -1000, "{\"cut\"", "message body receive error, n:6"},
        Incoming{"CutBySilence", kAnswer100, false, -1000, "{\"cut\"", "message body receive error, n:6"},
        Incoming{"Longest", "\xA1\xB2\x00\x43\xFF\xFF\xFF\xFF{}"_b, false, -1000, nullptr,
                 "message string malloc error"}),
    [](const auto &tested) { return tested.param.name; });

TEST(IpcReceive, WaitsThreeSecondsForEachPiece) {
    const Pair pair;
    pair.put("\xA1\xB2\x00\x43\x00\x00\x00\x64{"_b);
    const int64_t start = cloud_time_ms();
    uint32_t type = 0;
    char *body = nullptr;
    EXPECT_EQ(cloud_ipc_recv(pair.library.get(), &type, &body), -1000);
    EXPECT_GE(cloud_time_ms() - start, 2990);
    free(body);
}

TEST(IpcSockets, ConnectsAndClosesOnExec) {
    const UniqueFd server(cloud_ipc_server_init("/tmp/server"));
    const UniqueFd client(cloud_ipc_client_init("/tmp/server"));
    EXPECT_EQ(fcntl(server.get(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(client.get(), F_GETFD), FD_CLOEXEC);
    Log log(1);
    EXPECT_EQ(cloud_ipc_server_init("/tmp/server"), -2000);
    EXPECT_EQ(log.of(kIpc), "fail to bind the socket, errno:98:Address already in use");
    unlink("/tmp/server");
}

TEST(IpcSockets, RefusesPathsWithoutAServer) {
    const int open = open_descriptors();
    const std::string tooLong = "/tmp/" + std::string(104, 'x');
    Log log(1);
    EXPECT_EQ(cloud_ipc_client_init("/tmp/nobody"), -2001);
    EXPECT_EQ(cloud_ipc_client_init(tooLong.c_str()), -2001);
    EXPECT_EQ(cloud_ipc_server_init(tooLong.c_str()), -2000);
    EXPECT_EQ(log.of(kIpc),
              "fail to connect the socket, errno:2:No such file or directory / "
              "fail to connect the socket, errno:36:File name too long / "
              "fail to bind the socket, errno:36:File name too long");
    EXPECT_EQ(open_descriptors(), open);
}

void _say_both() {
    CLOUD_DEBUG("number %d", 7);
    CLOUD_ERROR("text %s", "t");
}

TEST(LibraryLog, WritesWhatTheHighestSwitchAllows) {
    for (const int level : {1, 2, 3}) {
        Log log(level);
        _say_both();
        EXPECT_THAT(log.lines(), ElementsAre("error unit: text t")) << level;
    }
    Log all(4);
    _say_both();
    EXPECT_THAT(all.lines(), ElementsAre("debug unit: number 7", "error unit: text t"));
    testing::internal::CaptureStdout();
    _say_both();
    std::ofstream("/tmp/log.0") << "";
    _say_both();
    unlink("/tmp/log.0");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// A switch is a regular file: anybody can make other things there, and the log holds whole messages.
TEST(LibraryLog, IsNotSwitchedOnByAFolderOrALink) {
    std::filesystem::create_directory("/tmp/log.4");
    std::ofstream("/tmp/elsewhere") << "";
    std::filesystem::create_symlink("/tmp/elsewhere", "/tmp/log.3");
    testing::internal::CaptureStdout();
    _say_both();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    for (const char *path : {"/tmp/log.4", "/tmp/log.3", "/tmp/elsewhere"}) {
        std::filesystem::remove(path);
    }
}

// Each line that the log writes raises SIGPIPE, and none of these reaches the handler.
TEST(LibraryLog, OutlivesAReaderThatLeft) {
    static std::atomic<int> l_struck{0};
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    const int output = dup(STDOUT_FILENO);
    const auto before = std::signal(SIGPIPE, [](int) { ++l_struck; });
    std::ofstream("/tmp/log.4") << "";
    dup2(ends[1], STDOUT_FILENO);
    _say_both();
    dup2(output, STDOUT_FILENO);
    close(output);
    unlink("/tmp/log.4");
    EXPECT_EQ(l_struck, 0);
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    EXPECT_EQ(l_struck, 1);  // a signal that is not the log's reaches its handler
    std::signal(SIGPIPE, before);
    close(ends[1]);
}

TEST(LibraryLog, LooksAtAsFewSwitchFilesAsItCan) {
    int before = lstat_calls();
    CLOUD_DEBUG("off");
    EXPECT_EQ(lstat_calls() - before, 1);
    before = lstat_calls();
    CLOUD_ERROR("off");
    EXPECT_EQ(lstat_calls() - before, 4);
    Log log(3);
    before = lstat_calls();
    CLOUD_ERROR("on");
    EXPECT_EQ(lstat_calls() - before, 2);
}

TEST(LibraryLog, WritesTheWholeLine) {
    const std::string whole(100000, 'x');
    Log log(4);
    _say_both();
    CLOUD_ERROR("%s%%", whole.c_str());
    const std::string text = log.raw();
    const std::string pid = std::to_string(getpid());
    EXPECT_THAT(
        text.substr(0, text.find('\n')),
        MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} \\| debug \\| pid:" +
                     pid + " \\| unit:[0-9]+ \\| _say_both \\| - number 7"));
    EXPECT_TRUE(text.ends_with(" | - " + whole + "%\n"));
}

TEST(LibraryLog, StampsWithTheLocalTime) {
    const HeapText stamp(cloud_time_string());
    EXPECT_THAT(stamp.get(),
                MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}"));
}

TEST(LibraryLog, LeavesErrnoAlone) {
    Log log(4);
    errno = EXDEV;
    _say_both();
    EXPECT_EQ(errno, EXDEV);
}

}  // namespace
