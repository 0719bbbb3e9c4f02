// The registered service: registration and its refusals, the greeting, the cloud's answer to it, and
// requests from the cloud.
#include "cloud_register.h"

#include <gmock/gmock.h>
#include <kxcc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <mutex>

#include "await.h"
#include "cloud_api.h"
#include "cloud_ipc.h"
#include "cloud_mod_support.h"
#include "cloud_owner.h"
#include "cloud_time.h"

using testing::HasSubstr;

namespace {

constexpr const char *kUnit = "cloud_register";
const std::string kConsent = frame(33, R"({"errorcode":0})");

char *_copy(const char *text) {
    return cloud_string_dup(text);
}

int32_t _handle(const char *request, char **response) {
    *response = strcmp(request, "no answer") == 0 ? nullptr : _copy((std::string("to ") + request).c_str());
    return -12;
}

void _greet(kxcc_hello_info **info) {
    *info = static_cast<kxcc_hello_info *>(calloc(1, sizeof(kxcc_hello_info)));
    if (*info != nullptr) {
        **info = {_copy("id"),    _copy("user@x"), _copy("name"),  _copy("\"alias\""),
                  _copy("02:00"), _copy("hw"),     _copy("model"), _copy("hwver"),
                  _copy("fw"),    _copy("oem"),    nullptr};
    }
}
void _greet_with_nothing(kxcc_hello_info ** /*info*/) {}

std::mutex l_mutex;
std::string l_told;  // what the answer hook was given; under l_mutex

void _take_answer(const kxcc_hello_result *result) {
    const std::lock_guard lock(l_mutex);
    l_told = std::to_string(result->errorCode) + ' ' + std::to_string(result->status) + ' ' +
             result->firmwareDownloadPage + ' ' + result->info + ' ' + std::to_string(result->stopConnect) +
             ' ' + std::to_string(result->reconnectTime);
}
std::string _told() {
    const std::lock_guard lock(l_mutex);
    return std::exchange(l_told, "");
}

constexpr kxcc_hello_hooks kHooks{_greet, _take_answer};
constexpr kxcc_hello_hooks kNoHooks{nullptr, nullptr};

constexpr const char *kGreeting =
    R"({"response":"{\"method\":\"helloCloud\",\"params\":{\"kcspVer\":\"1.2\",\"deviceId\":\"id\",)"
    R"(\"cloudUserName\":\"user@x\",\"deviceName\":\"name\",\"alias\":\"\\\"alias\\\"\",\"deviceMac\":\"02:00\",)"
    R"(\"hwId\":\"hw\",\"deviceModel\":\"model\",\"deviceHwVer\":\"hwver\",\"fwId\":\"fw\",\"oemId\":\"oem\",)"
    R"(\"fwVer\":\"\"}}"})";
constexpr const char *kHelloAnswer =
    R"({"errorcode":0,"response":"{\"error_code\":0,\"result\":{\"kcspStatus\":1,\"fwDlPage\":\"http://x\",)"
    R"(\"kcspInfo\":\"info\",\"stopConnect\":2,\"reconnectTime\":3}}"})";

Broker::Answer _consents() {
    return [](const Received &message) { return message.type == 32 ? kConsent : std::string(); };
}

class Register : public testing::Test {
protected:
    void TearDown() override { cloud_api_destroy(); }
};

TEST_F(Register, RefusesNullAndAnAbsentBroker) {
    EXPECT_EQ(kxcc_register_callback_v2(nullptr, &kHooks), KXCC_ERROR_PARAMETER);
    EXPECT_EQ(kxcc_register_callback_v2(_handle, nullptr), KXCC_ERROR_PARAMETER);
    EXPECT_EQ(kxcc_register_callback_v2(_handle, &kHooks), KXCC_ERROR_GENERAL);
    EXPECT_EQ(register_thread_create(nullptr), KXCC_ERROR_PARAMETER);
    EXPECT_EQ(register_thread_destroy(nullptr), KXCC_ERROR_PARAMETER);
}

TEST_F(Register, AnnouncesWhetherItGreets) {
    Broker broker(_consents());
    EXPECT_EQ(kxcc_register_callback_v2(_handle, &kHooks), 0);
    EXPECT_EQ(broker.await(32).body, R"({"hellocloud":1})");
    EXPECT_EQ(broker.await(32).connection, 1);
    EXPECT_EQ(kxcc_register_callback_v2(_handle, &kHooks), 0);  // the thread is there
    EXPECT_EQ(broker.received().size(), 1U);
    cloud_api_destroy();
    broker.await_closed(1);
    EXPECT_EQ(kxcc_register_callback_v2(_handle, &kNoHooks), 0);
    EXPECT_EQ(broker.await(32, 2).body, R"({"hellocloud":0})");
}

TEST_F(Register, ServesTheBroker) {
    Broker broker(_consents());
    Log log(4);
    ASSERT_EQ(kxcc_register_callback_v2(_handle, &kHooks), 0);
    broker.send(1, frame(128, ""));
    EXPECT_EQ(broker.await(129).body, kGreeting);
    broker.send(1, frame(34, kHelloAnswer) + frame(112, R"({"request":"ping"})"));
    EXPECT_EQ(broker.await(113).body, R"({"errorcode":-12,"response":"to ping"})");
    EXPECT_EQ(_told(), "0 1 http://x info 2 3");
    broker.send(1, "0123456789" + frame(112, ""));  // lost: the frames are out of step
    broker.hang_up(1);
    cloud_api_destroy();
    EXPECT_THAT(log.of(kUnit), testing::MatchesRegex(
                                   ".*register thread loop start.*dispatch as daemon hellocloud request / "
                                   "ipc send helloCloud success / dispatch as daemon hellocloud response / "
                                   "dispatch as daemon cloud request / .*register thread exit"));
}

TEST_F(Register, EndsWhenTheBrokerGoes) {
    Broker broker(_consents());
    Log log(1);
    ASSERT_EQ(kxcc_register_callback_v2(_handle, &kHooks), 0);
    broker.hang_up(1);
    CloudApi *const api = cloudApi;
    ASSERT_TRUE(test::await([api] { return api->registerFd == 0; }));
    // It counts as running until the teardown.
    EXPECT_EQ(register_thread_create(api), 0);
    EXPECT_EQ(broker.connections(), 2);
    cloud_api_destroy();
    EXPECT_EQ(log.of(kUnit), "cloud-brd close ipc");
    EXPECT_EQ(kxcc_register_callback_v2(_handle, &kHooks), 0);
}

struct Refusal {
    const char *name;
    std::string greeting;              // of the register connection
    std::optional<std::string> reply;  // to the announcement
    const char *logged;
    bool again;  // whether the next registration tries anew
    friend void PrintTo(const Refusal &row, std::ostream *out) { *out << row.name; }
};

class RegisterRefused : public testing::TestWithParam<Refusal> {};

TEST_P(RegisterRefused, ReturnsTimeout) {
    Broker broker(
        [](const Received &message) { return message.connection == 1 ? GetParam().reply : kConsent; },
        {kAccepted, GetParam().greeting, kAccepted});
    Log log(1);
    const int64_t start = cloud_time_ms();
    EXPECT_EQ(kxcc_register_callback_v2(_handle, &kHooks), KXCC_ERROR_TIMEOUT);
    EXPECT_GE(cloud_time_ms() - start, 5000);
    const char *const end = GetParam().again ? " / " : " / register thread connect daemon error / ";
    EXPECT_EQ(log.of(kUnit), GetParam().logged + std::string(end) + "register callback error");
    broker.await_closed(1);
    EXPECT_EQ(kxcc_register_callback_v2(_handle, &kHooks), GetParam().again ? 0 : KXCC_ERROR_TIMEOUT);
    cloud_api_destroy();
}

INSTANTIATE_TEST_SUITE_P(
    Case, RegisterRefused,
    testing::Values(Refusal{"HangsUp", "", kConsent, "ipc recv error", false},
                    Refusal{"NotAccepted", frame(16, R"({"errorcode":-5})"), kConsent,
                            "daemon accept not success, errocode:-5", false},
                    Refusal{"Full", frame(16, R"({"errorcode":0,"result":1})"), kConsent,
                            "daemon accept full", false},
                    Refusal{"NoReply", kAccepted, std::nullopt, "ipc recv error", true},
                    Refusal{"ReplyNotJson", kAccepted, frame(33, "yes"), "parse message error", true},
                    Refusal{"ReplyNoErrorcode", kAccepted, frame(33, "{}"), "parse errorcode error", true},
                    Refusal{"Refused", kAccepted, frame(33, R"({"errorcode":-4})"),
                            "register error, errorcode:-4", true}),
    [](const auto &tested) { return tested.param.name; });

// An instance whose messages go straight to the dispatcher.
class Dispatcher {
public:
    explicit Dispatcher(const kxcc_hello_hooks &hooks = kHooks) {
        cloudApi = cloud_api_init();
        CloudApi *const api = cloudApi;
        api->handler = _handle;
        api->hooks = hooks;
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds_), 0);
    }
    ~Dispatcher() {
        close(fds_[0]);
        close(fds_[1]);
        cloud_api_destroy();
    }
    Dispatcher(const Dispatcher &) = delete;
    Dispatcher &operator=(const Dispatcher &) = delete;

    void run(uint32_t type, const char *body) const { register_handle_dispatch(fds_[0], type, body); }
    // What it logs, and what it sends.
    [[nodiscard]] std::string outcome(uint32_t type, const char *body) const {
        Log log(1);
        run(type, body);
        char buffer[4096];
        const ssize_t size = read(fds_[1], buffer, sizeof(buffer));
        return log.of(kUnit) + std::string(buffer, size > 0 ? static_cast<size_t>(size) : 0);
    }

private:
    Broker broker_{_consents()};
    int fds_[2] = {-1, -1};
};

TEST(RegisterDispatch, AnswersTheCloud) {
    const Dispatcher dispatcher;
    const struct {
        const char *body;
        std::string outcome;
    } rows[] = {
        {R"({"request":"\"x\\"})", frame(113, R"({"errorcode":-12,"response":"to \"x\\"})")},
        {R"({"request":"no answer"})", frame(113, R"({"errorcode":-12,"response":""})")},
        {R"({"request":{}})", "parse request error"},
        {"request", "parse message error"},
        {nullptr, "parse message error"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(dispatcher.outcome(112, row.body), row.outcome);
    }
}

TEST(RegisterDispatch, GreetsWhenItCan) {
    EXPECT_EQ(Dispatcher().outcome(128, nullptr), frame(129, kGreeting));
    for (const kxcc_hello_hooks &hooks : {kNoHooks, kxcc_hello_hooks{_greet_with_nothing, nullptr}}) {
        EXPECT_EQ(Dispatcher(hooks).outcome(128, "{}"), "fail to get the request string of hellocloud");
    }
}

TEST(RegisterDispatch, RefusesWhatItDoesNotKnow) {
    const Dispatcher dispatcher;
    EXPECT_EQ(dispatcher.outcome(67, "{}"), "dispatch fail");
    EXPECT_EQ(dispatcher.outcome(0x10080, "{}"), "dispatch fail");
    Log log(1);
    register_handle_dispatch(-1, 128, nullptr);
    EXPECT_EQ(log.of(kUnit), "parameter error");
}

TEST(RegisterDispatch, HandsOverCompleteGreetingAnswersOnly) {
    const Dispatcher dispatcher;
    const std::string fields =
        R"(\"kcspStatus\":1,\"fwDlPage\":\"\",\"kcspInfo\":\"\",\"stopConnect\":0,\"reconnectTime\":0)";
    const auto answer = [](const std::string &response) {
        return R"({"errorcode":-1,"response":")" + response + "\"}";
    };
    const struct {
        std::string body;
        const char *told;
        const char *logged;
    } rows[] = {
        {kHelloAnswer, "0 1 http://x info 2 3", ""},
        {answer(R"({\"error_code\":-7,\"result\":{)" + fields + "}}"), "-7 1   0 0", "inner errorcode:-7"},
        {"hello", "", "parse message error"},
        {R"({"response":"{}"})", "", "parse errorcode error"},
        {R"({"errorcode":0,"response":5})", "", "parse response error"},
        {answer("hello"), "", "parse message error"},
        {answer(R"({\"error_code\":-7})"), "", "inner errorcode:-7 / get result error"},
        {answer(R"({\"result\":{)" + fields + "}}"), "", "parse inner errorcode error"},
        {answer(R"({\"error_code\":0,\"result\":{\"kcspStatus\":1}})"), "", "get result error"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(dispatcher.outcome(34, row.body.c_str()), row.logged) << row.body;
        EXPECT_EQ(_told(), row.told) << row.body;
    }
    EXPECT_EQ(Dispatcher(kNoHooks).outcome(34, kHelloAnswer), "");
}

TEST(RegisterDispatch, ReportsWhatCannotBeHad) {
    const Dispatcher dispatcher;
    Log log(1);
    with_each_allocation_failing([&] { dispatcher.run(128, ""); });
    with_each_allocation_failing([&] { dispatcher.run(112, R"({"request":"ping"})"); });
    with_each_allocation_failing([&] { dispatcher.run(34, kHelloAnswer); });
    const std::string logged = log.of(kUnit);
    for (const char *text : {"fail to get the request string of hellocloud", "fail to create json object",
                             "transfer from json to string error", "create object error"}) {
        EXPECT_THAT(logged, HasSubstr(text));
    }
}

}  // namespace
