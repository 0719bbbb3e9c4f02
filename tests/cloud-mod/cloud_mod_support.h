// For the tests of the client library: a broker that plays what a test tells it, byte by byte, and
// the library's log as text. Runs where /tmp belongs to the test.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

/// A message as bytes. Its own encoder, so that it cannot share a mistake with the library's.
std::string frame(int type, std::string_view body);

inline const std::string kAccepted = frame(16, R"({"errorcode":0,"result":0})");

struct Received {
    int connection = 0;  // 0 is the first that was made
    int type = 0;
    std::string body;
};

/// Listens on "/tmp/cloud-brd" while it lives.
class Broker {
public:
    /// Bytes to send for a message; empty: silence; none: hang up.
    using Answer = std::function<std::optional<std::string>(const Received &)>;

    /// @param greetings  bytes sent to each new connection; the last one is for all others, too.
    ///                   An empty one hangs up.
    explicit Broker(Answer answer, std::vector<std::string> greetings = {kAccepted});
    ~Broker();
    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    void send(int connection, const std::string &bytes);
    void hang_up(int connection);

    // Each of these waits for what it names, and throws when that does not happen.
    Received await(int type, int nth = 1);
    void await_closed(int connection);

    std::vector<Received> received(int type = 0);  ///< all, or all of one type
    int connections();

private:
    struct Connection {
        int fd = -1;
        std::string input;
    };
    void _run();
    void _accept();
    void _read(int index);
    void _take_messages(int index);
    void _close(int index);
    void _await(const std::function<bool()> &reached);

    const Answer answer_;
    const std::vector<std::string> greetings_;
    int listener_;
    int wake_[2] = {-1, -1};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Connection> connections_;  // this and the next two: under mutex_
    std::vector<Received> received_;
    bool stopping_ = false;
    std::thread thread_;
};

/// What the library logs while this lives, at the level of one switch file.
class Log {
public:
    explicit Log(int level = 4);
    ~Log();
    Log(const Log &) = delete;
    Log &operator=(const Log &) = delete;

    std::string raw();  ///< ends the capture
    /// Ends the capture. Each line as "error cloud_api: message".
    std::vector<std::string> lines();
    /// Ends the capture. The messages of one source unit, separated by " / ".
    std::string of(const std::string &unit);

private:
    std::string path_;
    bool open_ = true;
};

/// How many descriptors this process has open.
int open_descriptors();

/// Lets the n-th allocation of the library or of cJSON from now on fail (1: the next one); 0: none.
void fail_allocation(int nth);

/// Did it come to that one?
bool allocation_failed();

/// Allocations of the library and of cJSON that were not released yet.
int living_allocations();

/// From now on this process ends with status 99 when this thread has the library touch the heap.
void forbid_heap();

/// Runs `work` again and again, each time with the next allocation failing, until none does.
/// `work` leaves nothing behind: the count of living allocations is compared.
void with_each_allocation_failing(const std::function<void()> &work);

/// Calls of lstat() by the library so far.
int lstat_calls();
