// Requests with a callback: the pool, the thread that polls, and every way in which its broker can
// misbehave.
#include "cloud_callback.h"

#include <gmock/gmock.h>
#include <kxcc.h>

#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>

#include "cloud_api.h"
#include "cloud_ipc.h"
#include "cloud_mod_support.h"
#include "cloud_time.h"

using testing::HasSubstr;

namespace {

constexpr const char *kTimedOut = R"({"error_code":-3002,"msg":"Request timeout"})";

// What the callback was told.
class Answers {
public:
    using List = std::vector<std::pair<int32_t, std::string>>;
    void add(int32_t id, const char *text) {
        const std::lock_guard lock(mutex_);
        list_.emplace_back(id, text);
        changed_.notify_all();
    }
    List await(size_t count) {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, std::chrono::seconds(60), [&] { return list_.size() >= count; }));
        return list_;
    }
    List now() { return await(0); }
    void forget() {
        const std::lock_guard lock(mutex_);
        list_.clear();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    List list_;
};
Answers l_answers;

void _on_answer(int32_t id, const char *text) {
    l_answers.add(id, text);
}

// Accepts requests under the ids 1, 2, 3... and leaves polls to `poll`.
Broker::Answer _numbering(Broker::Answer poll) {
    return [poll = std::move(poll), id = 0](const Received &message) mutable -> std::optional<std::string> {
        return message.type == 66 ? poll(message)
                                  : frame(65, R"({"errorcode":0,"id":)" + std::to_string(++id) + "}");
    };
}
std::optional<std::string> _silent(const Received & /*message*/) {
    return "";
}
std::optional<std::string> _answered(const Received &message) {  // {"id":7} becomes the answer's begin
    return frame(67, message.body.substr(0, message.body.size() - 1) + R"(,"errorcode":0,"response":"a"})");
}

int32_t _submit(int32_t timeout) {
    return kxcc_send_request_async("{}", timeout, 1, _on_answer);
}

class Callback : public testing::Test {
protected:
    void SetUp() override { l_answers.forget(); }
    void TearDown() override { cloud_api_destroy(); }
};

TEST_F(Callback, InsertRefusesWhatCannotBe) {
    const Broker broker(_silent);
    cloudApi = cloud_api_init();
    Log log(4);
    EXPECT_EQ(callback_insert(nullptr, 1, 1, _on_answer), KXCC_ERROR_PARAMETER);
    EXPECT_EQ(callback_insert(cloudApi, 0, 1, _on_answer), KXCC_ERROR_PARAMETER);
    EXPECT_EQ(callback_insert(cloudApi, 1, 1, nullptr), KXCC_ERROR_PARAMETER);
    EXPECT_EQ(callback_thread_create(nullptr), KXCC_ERROR_PARAMETER);
    EXPECT_EQ(callback_thread_destroy(nullptr), KXCC_ERROR_PARAMETER);
    EXPECT_EQ(log.of("cloud_callback"),
              "parameter error / parameter error / parameter error / parameter error / "
              "will destroy callback thread / parameter error");
}

TEST_F(Callback, PoolTakesTwentyAndReusesOutlivedSlots) {
    const Broker broker(_silent);
    cloudApi = cloud_api_init();
    CloudApi *const api = cloudApi;
    for (int id = 1; id <= 20; ++id) {
        ASSERT_EQ(callback_insert(api, id, 60000, _on_answer), 0);
    }
    api->cb[6].timeout = -1;  // over
    api->cb[11].timeout = -1;
    ASSERT_EQ(callback_insert(api, 21, 60000, _on_answer), 0);
    ASSERT_EQ(callback_insert(api, 22, 60000, _on_answer), 0);
    EXPECT_EQ(api->cb[6].id, 21);
    EXPECT_EQ(api->cb[11].id, 22);
    Log log(4);
    EXPECT_EQ(callback_insert(api, 23, 60000, _on_answer), KXCC_ERROR_GENERAL);
    EXPECT_EQ(log.of("cloud_callback"), "callback pool full, pool slot:20 / callback insert error");
    EXPECT_TRUE(l_answers.now().empty());
}

TEST_F(Callback, SubmitReportsAFullPool) {
    Broker broker(_numbering(_answered));
    for (int i = 0; i < 20; ++i) {
        ASSERT_GT(_submit(60000), 0);
    }
    EXPECT_EQ(_submit(60000), KXCC_ERROR_GENERAL);
    cloud_api_destroy();  // waits for the answers
    EXPECT_EQ(l_answers.now().size(), 20U);
    EXPECT_EQ(broker.connections(), 2);
}

TEST_F(Callback, DeliversOutOfOrderAndDropsTheRest) {
    Broker broker(_numbering(_silent));
    Log log(1);
    for (int id = 1; id <= 3; ++id) {
        ASSERT_EQ(_submit(60000), id);
    }
    for (int id = 1; id <= 3; ++id) {
        EXPECT_EQ(broker.await(66, id).connection, 1);
    }
    for (const char *body :
         {R"({"id":3,"errorcode":0,"response":"three"})", R"({"id":1,"errorcode":-9,"response":"one"})",
          R"({"id":3,"errorcode":0,"response":"again"})", R"({"id":99,"errorcode":0,"response":"%n"})",
          R"({"id":0,"errorcode":0,"response":"zero"})", R"({"errorcode":0,"response":"no id"})",
          R"({"id":2,"response":"no code"})", R"({"id":2,"errorcode":-3001,"response":"early"})",
          R"({"id":2,"errorcode":0})", R"({"id":2,)", ""}) {
        broker.send(1, frame(67, body));
    }
    broker.send(1, frame(65, R"({"id":2,"errorcode":0,"response":"wrong type"})"));
    broker.send(1, "0123456789abcdef");
    broker.send(1, frame(67, R"({"id":2,"errorcode":0,"response":"two"})"));
    EXPECT_EQ(l_answers.await(3), (Answers::List{{3, "three"}, {1, "one"}, {2, "two"}}));
    cloud_api_destroy();
    EXPECT_EQ(log.of("cloud_callback"),
              R"(no such request, id:3, msg:{"id":3,"errorcode":0,"response":"again"} / )"
              R"(no such request, id:99, msg:{"id":99,"errorcode":0,"response":"%n"} / )"
              R"(no such request, id:0, msg:{"id":0,"errorcode":0,"response":"zero"} / )"
              R"(get id error / parse json error, msg:{"id":2, / )"
              R"(receive msg type error, type:67, msg:(null) / )"
              R"(receive msg type error, type:65, msg:{"id":2,"errorcode":0,"response":"wrong type"} / )"
              R"(ipc recv error / ipc recv error)");
}

TEST_F(Callback, TimesOutOnceAndKnowsTheIdNoMore) {
    Broker broker(_numbering(_silent));
    Log log(1);
    const int64_t start = cloud_time_ms();
    ASSERT_EQ(_submit(1000), 1);
    EXPECT_EQ(l_answers.await(1), (Answers::List{{1, kTimedOut}}));
    EXPECT_GE(cloud_time_ms() - start, 1000);
    ASSERT_EQ(_submit(60000), 2);
    broker.send(1, frame(67, R"({"id":1,"errorcode":0,"response":"late"})") +
                       frame(67, R"({"id":2,"errorcode":0,"response":"b"})"));
    cloud_api_destroy();
    EXPECT_EQ(l_answers.now(), (Answers::List{{1, kTimedOut}, {2, "b"}}));
    EXPECT_EQ(log.of("cloud_callback"),
              R"(no such request, id:1, msg:{"id":1,"errorcode":0,"response":"late"})");
}

TEST_F(Callback, StopWaitsForPendingRequests) {
    Broker broker(_numbering([polls = 0](const Received &message) mutable {
        return ++polls < 3 ? std::optional<std::string>("") : _answered(message);
    }));
    ASSERT_EQ(_submit(60000), 1);
    cloud_api_destroy();
    EXPECT_EQ(l_answers.now(), (Answers::List{{1, "a"}}));
    EXPECT_EQ(broker.received(66).size(), 3U);
    broker.await_closed(0);
    broker.await_closed(1);
}

TEST_F(Callback, SurvivesABrokerThatGoesAway) {
    Broker broker(_numbering([](const Received & /*message*/) { return std::nullopt; }));
    Log log(1);
    ASSERT_EQ(_submit(3000), 1);  // time for two polls
    EXPECT_EQ(l_answers.await(1), (Answers::List{{1, kTimedOut}}));
    EXPECT_NE(cloudApi, nullptr);  // the thread does not take SIGPIPE
    cloud_api_destroy();
    const std::string logged = log.of("cloud_callback");
    EXPECT_THAT(logged, HasSubstr("cloud-brd close ipc"));
    EXPECT_THAT(logged, HasSubstr("ipc send error"));
}

void _tell_stack(int32_t id, const char * /*text*/) {
    pthread_attr_t attributes;
    size_t size = 0;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &size);
    pthread_attr_destroy(&attributes);
    _on_answer(id, size < size_t{1} << 20 ? "small" : "large");
}

TEST_F(Callback, ReadsTheDeepestTextOnASmallStack) {
    const Broker broker(_numbering([](const Received & /*message*/) {
        return frame(67, R"({"id":1,"errorcode":0,"response":"a","x":)" + std::string(999, '[') +
                             std::string(999, ']') + "}");
    }));
    pthread_attr_t usual;
    pthread_attr_t small;  // as musl gives it, less than the library asks for
    ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
    pthread_attr_init(&small);
    pthread_attr_setstacksize(&small, 131072);
    ASSERT_EQ(pthread_setattr_default_np(&small), 0);
    EXPECT_EQ(kxcc_send_request_async("{}", 60000, 1, _tell_stack), 1);
    EXPECT_EQ(pthread_setattr_default_np(&usual), 0);
    EXPECT_EQ(l_answers.await(1), (Answers::List{{1, "small"}}));
}

void _submit_next(int32_t id, const char *text) {
    volatile char large[512 * 1024];  // fits the system's own stacks
    large[0] = *text;
    large[sizeof(large) - 1] = large[0];
    _on_answer(id, text);
    if (l_answers.now().size() < 5) {
        kxcc_send_request_async("{}", 60000, 1, _submit_next);
    }
}

TEST_F(Callback, MaySubmitTheNextRequest) {
    const Broker broker(_numbering(_answered));
    ASSERT_EQ(kxcc_send_request_async("{}", 60000, 1, _submit_next), 1);
    while (l_answers.now().size() < 5) {  // this thread's calls and the callback's take turns
        ASSERT_GT(kxcc_send_request_async("{}", 60000, 1, nullptr), 0);
    }
    cloud_api_destroy();
    EXPECT_EQ(l_answers.now().size(), 5U);
}

void _tear_down(int32_t id, const char *text) {
    cloud_api_destroy();
    _on_answer(id, text);
}

TEST_F(Callback, CannotTearItselfDown) {
    const Broker broker(_numbering(_answered));
    ASSERT_EQ(kxcc_send_request_async_noaccount("{}", 5000, 1, _tear_down), 1);
    EXPECT_EQ(l_answers.await(1), (Answers::List{{1, "a"}}));
    EXPECT_NE(cloudApi, nullptr);
}

TEST_F(Callback, InsertsWhileTheThreadScans) {
    const Broker broker(_numbering(_answered));
    std::map<int32_t, int> open;
    while (open.size() < 50) {
        if (const int32_t id = _submit(60000); id > 0) {
            ++open[id];
        } else {
            ASSERT_EQ(id, KXCC_ERROR_GENERAL);
        }
    }
    cloud_api_destroy();
    for (const auto &[id, text] : l_answers.now()) {
        EXPECT_EQ(--open[id], 0) << id;  // each exactly once
    }
    EXPECT_EQ(l_answers.now().size(), 50U);
}

struct Refusal {
    const char *name;
    std::string greeting;
    std::string logged;
    friend void PrintTo(const Refusal &row, std::ostream *out) { *out << row.name; }
};

class CallbackConnect : public testing::TestWithParam<Refusal> {};

TEST_P(CallbackConnect, FailsForGood) {
    Broker broker(_numbering(_silent), {kAccepted, GetParam().greeting});
    Log log(1);
    ASSERT_EQ(_submit(100), 1);
    broker.await_closed(1);
    EXPECT_EQ(_submit(100), 2);  // the thread counts as running
    cloud_api_destroy();
    EXPECT_EQ(log.of("cloud_callback"), GetParam().logged + " / callback thread connect daemon error");
    EXPECT_TRUE(l_answers.now().empty());
    EXPECT_EQ(broker.connections(), 2);
}

INSTANTIATE_TEST_SUITE_P(Case, CallbackConnect,
                         testing::Values(Refusal{"HangsUp", "", "ipc recv error"},
                                         Refusal{"Refused", frame(16, R"({"errorcode":-5})"),
                                                 "daemon accept not success, errorcode:-5"},
                                         Refusal{"Full", frame(16, R"({"errorcode":0,"result":1})"),
                                                 "daemon accept full"}),
                         [](const auto &tested) { return tested.param.name; });

TEST_F(Callback, DumpsItsPool) {
    const Broker broker(_silent);
    cloudApi = cloud_api_init();
    CloudApi *const api = cloudApi;
    ASSERT_EQ(callback_insert(api, 12, 60000, _on_answer), 0);
    testing::internal::CaptureStdout();
    callback_dump(api);
    const std::string text = testing::internal::GetCapturedStdout();
    const std::string rule = std::string(50, '-') + "\n";
    char slot[100];
    snprintf(slot, sizeof(slot), " %5d    %14d %14lld %14lld    %12p\n", 12, 60000,
             static_cast<long long>(api->cb[0].reqTime), static_cast<long long>(api->cb[0].reqTime),
             reinterpret_cast<void *>(_on_answer));
    EXPECT_THAT(text, testing::StartsWith(
                          rule + "    id      timeout      reqTime     lastGetResTime    callback    \n" +
                          slot + "     0                 0              0              0           (nil)\n"));
    EXPECT_TRUE(text.ends_with(rule));
}

}  // namespace
