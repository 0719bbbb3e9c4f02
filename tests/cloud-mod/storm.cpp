// The client library in a storm: its broker is torn down and started again every 50 ms, while threads take
// turns at the calls, callbacks submit requests of their own beside them, and the register thread serves.
// usage: cloud_mod_storm [SECONDS]     (60, and on until each outcome has been seen)
#include <cloud_api.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "broker.h"
#include "cloud_signals.h"
#include "namespace.h"

namespace {

constexpr size_t kThreads = 8;
constexpr int kLifeMs = 50;  // of a broker
// A callback gets no answer before KXCC_POLL_INTERVAL_MS: so one broker in so many lives longer.
constexpr int kLives = 20;
constexpr int kCalmMs = 1000;
constexpr int32_t kBriefMs = 60;  // time-outs; leaving the broker waits for them
constexpr int32_t kPatientMs = 1000;
constexpr unsigned kHungSeconds = 120;
constexpr char kRequest[] = R"({"method":"myTestConnection"})";
constexpr char kRules[] = R"({"listening":false,"rules":[
    {"on":32,"do":{"then":["ask_hello","deliver_hello",{"push":"{}"}]}},
    {"on":113,"do":{"then":[{"push":"{}"}]}}]})";

struct Outcome {
    const char *name;
    std::atomic<int> count{0};
    // Relaxed: the driver orders nothing that the library itself has to.
    void add(bool one = true) { count.fetch_add(one ? 1 : 0, std::memory_order_relaxed); }
    [[nodiscard]] int seen() const { return count.load(std::memory_order_relaxed); }
};
Outcome l_answered{"answered"}, l_failed{"failed"}, l_lost{"connection lost"}, l_called{"called back"},
    l_timedOut{"timed out"}, l_next{"submitted by a callback"}, l_greeted{"greeted"}, l_served{"served"};
Outcome l_mixed{"given another call's reply"};  // the only one that must not be
const std::array l_outcomes{&l_answered, &l_failed, &l_lost,    &l_called,
                            &l_timedOut, &l_next,   &l_greeted, &l_served};

// A process of its own, as the library closes descriptor 0 where it cannot connect. Ends when the other end
// of the pipe closes. In account mode while there is time for a patient request.
[[noreturn]] void run_broker(int pipe) {
    emulator::Journal journal;
    emulator::Cloud cloud;
    emulator::Broker broker(journal, cloud, emulator::json::parse(kRules));
    pollfd end{pipe, POLLIN, 0};
    for (int life = 0; end.revents == 0; ++life) {
        const bool calm = life % kLives == 0;
        broker.set_logic(calm ? KXCC_LOGIC_ACCOUNT : KXCC_LOGIC_NO_ACCOUNT);
        broker.start();
        poll(&end, 1, calm ? kPatientMs / 2 : kLifeMs);
        broker.set_logic(KXCC_LOGIC_NO_ACCOUNT);
        poll(&end, 1, calm ? kCalmMs : 0);
        broker.stop();
        journal.clear();
    }
    exit(EXIT_SUCCESS);
}

void on_answer(int32_t /*id*/, const char *text) {
    (strstr(text, "-3002") == nullptr ? l_called : l_timedOut).add();
}

void on_first_answer(int32_t id, const char *text) {
    on_answer(id, text);
    const int32_t next = kxcc_send_request_async_noaccount(kRequest, kBriefMs, 1, on_answer);
    l_next.add(next > 0);
    l_mixed.add(next == KXCC_ERROR_REPLY);
}

int32_t on_request(const char * /*request*/, char **response) {
    l_served.add();
    *response = strdup("{}");
    return KXCC_OK;
}

void on_hello(kxcc_hello_info **info) {
    l_greeted.add();
    *info = static_cast<kxcc_hello_info *>(calloc(1, sizeof(kxcc_hello_info)));
}

int32_t ask() {
    char *text = nullptr;
    const int32_t result = kxcc_send_request_sync(kRequest, kBriefMs, 1, &text);
    free(text);
    (result == KXCC_OK ? l_answered : l_failed).add();
    return result;
}

int32_t submit() {
    const bool calm = kxcc_get_logic_status() == KXCC_LOGIC_ACCOUNT;
    return kxcc_send_request_async(kRequest, calm ? kPatientMs : kBriefMs, 1, on_first_answer);
}

// Few in the storm itself: one that fails keeps its thread, and with it the others, for 5 seconds.
int32_t register_service() {
    static int hasty = 0;
    const kxcc_hello_hooks hooks{on_hello, [](const kxcc_hello_result *) {}};
    int32_t result = kxcc_get_logic_status();
    if (result == KXCC_LOGIC_ACCOUNT || (result == KXCC_LOGIC_NO_ACCOUNT && ++hasty % 64 == 0)) {
        int again = 50;  // the later ones are short, and beside the thread that reads the hooks
        do {
            result = kxcc_register_callback_v2(on_request, &hooks);
        } while (result == KXCC_OK && --again > 0);
    }
    return result;
}

void call(size_t turn) {
    constexpr std::array kCalls{ask, submit, register_service};
    const int32_t result = kCalls[turn % kCalls.size()]();
    l_lost.add(result == KXCC_ERROR_SEND);
    l_mixed.add(result == KXCC_ERROR_REPLY);
    if (result < 0 && fcntl(STDIN_FILENO, F_GETFD) < 0) {
        static_cast<void>(open("/dev/null", O_RDONLY));
    }
}

}  // namespace

int main(int argc, char **argv) {
    emulator::enter_device();
    const int seconds = argc > 1 ? atoi(argv[1]) : 60;
    std::array<int, 2> ends{-1, -1};
    const pid_t broker = pipe(ends.data()) == 0 ? fork() : -1;
    if (broker == 0) {
        close(ends[1]);
        run_broker(ends[0]);
    }
    alarm(static_cast<unsigned>(seconds) + kHungSeconds);  // ends the process, whatever hangs

    // The library belongs to the thread whose turn it is; its handlers run in no other.
    const SignalsBlocked blocked;  // in all threads that start now
    std::mutex mutex;
    std::condition_variable changed;
    size_t turn = 0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    const auto take_turns = [&](size_t own) {
        sigset_t open;
        sigset_t shut;
        sigemptyset(&open);
        std::unique_lock lock(mutex);
        for (bool over = false; !over; ++turn, changed.notify_all()) {
            changed.wait(lock, [&] { return turn % kThreads == own; });
            over = std::chrono::steady_clock::now() >= until &&
                   std::ranges::all_of(l_outcomes, [](const Outcome *one) { return one->seen() > 0; });
            pthread_sigmask(SIG_SETMASK, &open, &shut);
            call(turn);
            pthread_sigmask(SIG_SETMASK, &shut, nullptr);
        }
    };
    std::vector<std::thread> threads;
    for (size_t i = 0; i < kThreads; ++i) {
        threads.emplace_back(take_turns, i);
    }
    std::ranges::for_each(threads, &std::thread::join);
    cloud_api_destroy();
    close(ends[1]);
    int status = -1;
    waitpid(broker, &status, 0);
    for (const Outcome *one : l_outcomes) {
        std::printf("%s: %d\n", one->name, one->seen());
    }
    std::printf("%s: %d\n", l_mixed.name, l_mixed.seen());
    return cloudApi == nullptr && status == 0 && l_mixed.seen() == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
