// kxcc-tap between a broker and clients that share no code with it.
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "await.h"
#include "emulator_support.h"
#include "process.h"
#include "unix_socket.h"

namespace emulator {
namespace {

const std::string kAside = std::string(kPath) + ".aside";
constexpr const char *kRecord = "/tmp/record";

Process _start_tap(std::vector<std::string> words = {kRecord}) {
    words.insert(words.begin(), {std::filesystem::read_symlink("/proc/self/exe").parent_path() / "kxcc-tap",
                                 "--socket", kPath});
    return Process(std::move(words));
}

ino_t _inode(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

// Whether the tap stands in the place of this socket.
bool _taken(ino_t broker) {
    return test::await(
        [&] { return _inode(kAside) == broker && _inode(kPath) != broker && _inode(kPath) != 0; });
}

std::vector<json> _recorded(std::string_view kind) {
    std::vector<json> found;
    std::ifstream file(kRecord);
    for (std::string line; std::getline(file, line);) {
        const json record = json::parse(line);
        if (record.at("kind") == kind) {
            found.push_back(record);
        }
    }
    return found;
}

// The members of records that do not depend on who wrote them.
std::vector<json> _without_time(std::vector<json> records) {
    for (json &record : records) {
        for (const char *name : {"seq", "t", "scripted", "body_hex", "bytes"}) {
            record.erase(name);
        }
        record = json::parse(dump(record));  // with what stands for bytes that are no text
    }
    return records;
}

struct End {
    const char *name;
    int signal;
};

void PrintTo(const End &row, std::ostream *out) {
    *out << row.name;
}

class TapEnds : public testing::TestWithParam<End> {};

TEST_P(TapEnds, WithTheBrokersOwnJournalAndTheSocketInItsPlace) {
    const json odd{{"on", "logic"}, {"do", {{"body", "\xC3\xA4 \xFF\\\"\n\x01"}}}};
    Neighbours device(json{{"rules", json::array({odd})}});
    ASSERT_EQ(chmod(kPath, 0640), 0);
    const ino_t broker = _inode(kPath);
    Process tap = _start_tap();
    ASSERT_TRUE(_taken(broker)) << tap.err();
    EXPECT_EQ(std::filesystem::status(kPath).permissions(), std::filesystem::perms(0640));
    {
        const Client first;
        const Client second;
        EXPECT_EQ(first.message().first, 16);
        EXPECT_EQ(second.message().first, 16);
        EXPECT_EQ(first.ask(98, "").second, "\xC3\xA4 \xFF\\\"\n\x01");
        const std::string request = R"({"request":"{\"method\":\"getWeather\",\"params\":{}}"})";
        EXPECT_EQ(second.ask(64, request), std::pair(65, std::string(R"({"errorcode":0,"id":1})")));
        EXPECT_EQ(second.ask(66, R"({"id":1})").first, 67);
        tap.kill(GetParam().signal);
        ASSERT_TRUE(test::await([&] { return _inode(kPath) == broker; }));
        EXPECT_EQ(first.ask(96, "").second, R"({"errorcode":0,"status":2})") << "an open connection goes on";
    }
    EXPECT_EQ(tap.wait().status, 0);
    EXPECT_EQ(_inode(kAside), 0U);
    EXPECT_THAT(_without_time(_recorded("message")),
                testing::UnorderedElementsAreArray(_without_time(device.journal.of_kind("message"))));
    EXPECT_EQ(_recorded("message").at(3).value("body_hex", ""), "C3A420FF5C220A01");
    EXPECT_EQ(_recorded("connect").size(), 2U);
    EXPECT_EQ(_recorded("close").size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(Signals, TapEnds,
                         testing::Values(End{"term", SIGTERM}, End{"int", SIGINT}, End{"hangup", SIGHUP}),
                         [](const auto &row) { return row.param.name; });

TEST(Tap, LeavesEachSideWhatTheOtherSays) {
    Descriptor listening = bound_socket(SOCK_STREAM, kPath);
    listen(listening.get(), 8);
    const ino_t own = _inode(kPath);
    const Process tap = _start_tap();
    ASSERT_TRUE(_taken(own)) << tap.err();
    const auto connectBoth = [&](Descriptor *client, Descriptor *broker) {
        client->reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = socket_address(kPath);
        ASSERT_EQ(connect(client->get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        broker->reset(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
        for (const Descriptor *each : {client, broker}) {
            const timeval watchdog{kWatchdog.count(), 0};
            setsockopt(each->get(), SOL_SOCKET, SO_RCVTIMEO, &watchdog, sizeof watchdog);
        }
    };
    const auto take = [](const Descriptor &from, size_t size) {
        std::string bytes(size, '\0');
        static_cast<void>(read_all(from.get(), bytes));
        return bytes;
    };
    Descriptor client;
    Descriptor broker;

    connectBoth(&client, &broker);
    write_all(client.get(), "all");
    shutdown(client.get(), SHUT_WR);
    EXPECT_EQ(take(broker, 4), "all") << "half closed: the other way is still open";
    write_all(broker.get(), "answer");
    broker.reset();
    EXPECT_EQ(take(client, 7), "answer");

    connectBoth(&client, &broker);
    broker.reset();
    EXPECT_EQ(take(client, 1), "");
    EXPECT_TRUE(test::await([&] { return send(client.get(), "x", 1, MSG_NOSIGNAL) < 0 && errno == EPIPE; }));

    // A client that does not read holds up its own broker alone.
    connectBoth(&client, &broker);
    std::string sent;
    for (ssize_t size = 1; size > 0;
         sent.append(size > 0 ? static_cast<size_t>(size) : 0, static_cast<char>('a' + sent.size() % 23))) {
        const std::string piece(997, static_cast<char>('a' + sent.size() % 23));
        size = send(broker.get(), piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    Descriptor otherClient;
    Descriptor otherBroker;
    connectBoth(&otherClient, &otherBroker);
    write_all(otherBroker.get(), "heard");
    EXPECT_EQ(take(otherClient, 5), "heard");
    broker.reset();
    EXPECT_EQ(take(client, sent.size() + 1), sent);
}

TEST(Tap, IsMendedByOneCommandAfterAKill) {
    Neighbours device;
    const ino_t broker = _inode(kPath);
    Process tap = _start_tap();
    ASSERT_TRUE(_taken(broker)) << tap.err();
    EXPECT_EQ(_start_tap({"--restore"}).wait().status, 1) << "a tap that runs is left alone";
    EXPECT_TRUE(_taken(broker));
    tap.kill(SIGKILL);
    EXPECT_EQ(tap.wait().signal, SIGKILL);
    EXPECT_FALSE(Client().connected());
    const auto mended = _start_tap({"--restore"}).wait();
    EXPECT_EQ(mended.status, 0) << mended.err;
    EXPECT_EQ(_inode(kPath), broker);
    EXPECT_EQ(Client().message().first, 16);
    EXPECT_EQ(_inode(kAside), 0U);
}

TEST(Tap, NamesAWordThatItDoesNotTake) {
    const std::string longPath = "/" + std::string(200, 'x');
    for (const auto &[words, told] : {
             std::pair{std::vector<std::string>{"--wiat"}, "no option --wiat; did you mean --wait?"},
             {{"--limit"}, "--limit needs a value"},
             {{"--socket", longPath}, "the path is too long"},
             {{"one", "two"}, "two: there is a JOURNAL already"},
         }) {
        const auto run = _start_tap(words).wait();
        EXPECT_EQ(run.status, 2) << told;
        EXPECT_THAT(run.err, testing::HasSubstr(told));
    }
}

TEST(Tap, FollowsABrokerThatStartsAgain) {
    Neighbours device;
    device.broker.stop();
    Process tap = _start_tap({"--wait", kRecord});
    ASSERT_TRUE(test::await([&] { return tap.err().find("yet") != std::string::npos; }));
    for (const size_t round : {1U, 2U}) {
        device.broker.start();
        ASSERT_TRUE(test::await([&] { return _recorded("tap").size() == round; })) << tap.err();
        EXPECT_EQ(Client().message().first, 16);
        ASSERT_TRUE(test::await([&] { return _recorded("message").size() == round; }));
        device.broker.stop();
    }
    tap.kill(SIGTERM);
    EXPECT_EQ(tap.wait().status, 0);
    EXPECT_EQ(_inode(kAside), 0U);
}

}  // namespace
}  // namespace emulator
