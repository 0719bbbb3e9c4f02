// The end of a program of the library, by a signal or as a child of fork(): the status, and the
// connections closed.
#include <gmock/gmock.h>
#include <kxcc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <functional>

#include "cloud_api.h"
#include "cloud_mod_support.h"
#include "cloud_owner.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

// A process of its own, made while this one has a single thread; it starts when it is told to.
class Child {
public:
    explicit Child(const std::function<void()> &work) {
        int fds[2];
        EXPECT_EQ(pipe(fds), 0);
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[1]);
            char go = 0;
            if (read(fds[0], &go, 1) == 1) {
                work();
            }
            _exit(7);
        }
        close(fds[0]);
        start_ = UniqueFd(fds[1]);
    }
    void start() const { EXPECT_EQ(write(start_.get(), "", 1), 1); }
    void signal(int number) const { EXPECT_EQ(kill(pid_, number), 0); }
    int status() const {
        int status = -1;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    UniqueFd start_;
};

std::optional<std::string> _pending(const Received &message) {
    return message.type == 66 ? frame(67, R"({"id":5,"errorcode":-3001})")
                              : frame(65, R"({"errorcode":0,"id":5})");
}

void _request() {
    char *text = nullptr;
    static_cast<void>(kxcc_send_request_sync("{}", 60000, 1, &text));
}

std::array<int, 2> l_called{-1, -1};  // a pipe

void _ignore(int32_t /*id*/, const char * /*text*/) {}

void _wait_for_callback() {
    static_cast<void>(kxcc_send_request_async("{}", 3000, 1, _ignore));
    for (;;) {
        pause();
    }
}

// A request with a callback, made and answered: from then on its thread runs.
void _start_thread() {
    static_cast<void>(!pipe(l_called.data()));
    static_cast<void>(kxcc_send_request_async("{}", 1, 1, [](int32_t /*id*/, const char * /*text*/) {
        static_cast<void>(!write(l_called[1], "", 1));
    }));
    char called = 0;
    static_cast<void>(!read(l_called[0], &called, 1));
}

TEST(Signals, EndARequest) {
    for (const int number : {SIGTERM, SIGINT}) {
        const Child child(_request);
        Broker broker(_pending);
        child.start();
        broker.await(66);
        child.signal(number);
        EXPECT_EQ(child.status(), 255) << number;
        broker.await_closed(0);
    }
}

TEST(Signals, EndAWaitForACallbackOnceItCame) {
    for (const int number : {SIGTERM, SIGINT}) {
        const Child child(_wait_for_callback);
        Broker broker(_pending);
        child.start();
        broker.await(66);
        child.signal(number);
        EXPECT_EQ(child.status(), 255) << number;
        broker.await_closed(0);
        broker.await_closed(1);
        EXPECT_GE(broker.received(66).size(), 2U);  // the teardown waited for the time-out
    }
}

TEST(Signals, EndATeardownAtOnce) {
#ifdef __SANITIZE_THREAD__
    constexpr std::array kFirst{0};  // ThreadSanitizer delivers no signal within a handler
#else
    constexpr std::array kFirst{0, SIGTERM, SIGINT, SIGPIPE};
#endif
    for (const int first : kFirst) {
        const Child child([first] {
            static_cast<void>(kxcc_send_request_async("{}", 600000, 1, _ignore));
            if (first == 0) {
                cloud_api_destroy();  // waits for the request, as the handlers do
            }
            raise(first);
        });
        Broker broker(_pending);
        child.start();
        broker.await(66, 2);  // by then the teardown has begun
        child.signal(SIGTERM);
        broker.await_closed(1);
        EXPECT_EQ(child.status(), 255) << first;
    }
}

// A signal may strike inside malloc(): what needs the heap then waits for ever.
TEST(Signals, EndWithoutTheHeap) {
    for (const int number : {SIGTERM, SIGINT}) {
        Log log(4);
        const Child child([number] {
            setvbuf(stdout, nullptr, _IONBF, 0);
            _start_thread();
            forbid_heap();
            raise(number);
        });
        Broker broker(_pending);
        child.start();
        EXPECT_EQ(child.status(), 255) << number;
        broker.await_closed(0);
        broker.await_closed(1);
        EXPECT_THAT(log.of("cloud_api"),
                    testing::EndsWith("api init success / receive sigint:" + std::to_string(number) +
                                      " / begin destroy cloud api / end destroy cloud api"));
    }
}

TEST(Fork, ChildEndsWithoutTheThreadsAndLeavesTheConnectionAlone) {
    Log log(4);
    const Child parent([] {
        setvbuf(stdout, nullptr, _IONBF, 0);
        _start_thread();
        for (const int number : {0, SIGPIPE, SIGTERM}) {
            const Child child([number] {
                raise(number);
                exit(number);
            });
            child.start();
            if (child.status() != (number == SIGTERM ? 255 : number)) {
                _exit(1);
            }
        }
        _exit(kxcc_send_request_async("{}", 1, 1, nullptr) == 5 ? 0 : 2);
    });
    Broker broker(_pending);
    parent.start();
    EXPECT_EQ(parent.status(), 0);
    EXPECT_EQ(broker.connections(), 2);
    EXPECT_THAT(log.of("cloud_callback"),
                AllOf(HasSubstr("already destroyed"), Not(HasSubstr("canceled"))));  // that is, joined
}

}  // namespace
