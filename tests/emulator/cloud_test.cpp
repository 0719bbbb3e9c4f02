// The model of the cloud.
#include "cloud.h"

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "device.h"

namespace emulator {
namespace {

using namespace std::string_literals;

struct Call {
    const char *name;
    std::vector<std::pair<const char *, json>> before;  // method and params that succeed
    std::string request;
    std::string answer;
};

void PrintTo(const Call &row, std::ostream *out) {
    *out << row.name;
}

class CloudModel : public testing::TestWithParam<Call> {};

TEST_P(CloudModel, Answers) {
    Cloud cloud;
    for (const auto &[method, params] : GetParam().before) {
        EXPECT_THAT(cloud.answer(dump({{"method", method}, {"params", params}})),
                    testing::StartsWith(R"({"error_code":0)"));
    }
    EXPECT_EQ(cloud.answer(GetParam().request), GetParam().answer);
}

json _by(const char *user, const char *password) {
    return {{"deviceId", kDeviceId}, {"cloudUserName", user}, {"cloudPassword", password}};
}

std::string _request(const char *method, const json &params) {
    return dump({{"method", method}, {"params", params}});
}

std::string _refused(int code, const char *message) {
    return Cloud::failure(code, message);
}

const json kAlice = _by("alice@example.com", "Secret-1");
const json kBob = _by("bob@example.com", "Secret-2");
const json kCarol = _by("carol@example.com", "Secret-3");
const json kNobody = _by("nobody", "x");
const std::string kDone = R"({"error_code":0,"result":{}})";
constexpr const char *kNoParameter = "Parameter missing or of a wrong type: ";

INSTANTIATE_TEST_SUITE_P(
    Rows, CloudModel,
    testing::Values(
        Call{"bind", {}, _request("bindDevice", _by("ALICE@example.com", "Secret-1")), kDone},
        Call{"bind_again", {{"bindDevice", kAlice}}, _request("bindDevice", kAlice), kDone},
        Call{"bind_wrong_password",
             {},
             _request("bindDevice", _by("alice@example.com", "secret-1")),
             _refused(-20202, "Password incorrect")},
        Call{"bind_unknown", {}, _request("bindDevice", kNobody), _refused(-20201, "Account doesn't exist")},
        Call{"bind_other",
             {{"bindDevice", kAlice}},
             _request("bindDevice", kCarol),
             _refused(-20302, "Device is bound to another account")},
        Call{"bind_no_params",
             {},
             R"({"method":"bindDevice"})",
             _refused(-20102, (kNoParameter + "deviceId"s).c_str())},
        Call{"unbind", {{"bindDevice", kAlice}}, _request("unbindDevice", kAlice), kDone},
        Call{"unbind_twice",
             {{"bindDevice", kAlice}, {"unbindDevice", kAlice}},
             _request("unbindDevice", kAlice),
             _refused(-20303, "Device is not bound")},
        Call{"unbind_by_other",
             {{"bindDevice", kAlice}},
             _request("unbindDevice", kBob),
             _refused(-20304, "Account is not the owner")},
        Call{"login_owner",
             {{"bindDevice", kAlice}},
             _request("deviceAccountLogin", kAlice),
             R"({"error_code":0,"result":{"role":0}})"},
        Call{"login_user",
             {{"bindDevice", kAlice}},
             _request("deviceAccountLogin", kBob),
             R"({"error_code":0,"result":{"role":1}})"},
        Call{"login_stranger",
             {{"bindDevice", kAlice}},
             _request("deviceAccountLogin", kCarol),
             _refused(-20304, "Account is no user of this device")},
        Call{"alias_no_text",
             {},
             _request("updateAlias", {{"deviceId", kDeviceId}, {"alias", 5}}),
             _refused(-20102, (kNoParameter + "alias"s).c_str())},
        Call{"other_device",
             {},
             _request("updateAlias", {{"deviceId", "00"}, {"alias", ""}}),
             _refused(-20301, "Device doesn't exist")},
        Call{"removed_user",
             {{"bindDevice", kAlice},
              {"removeDeviceUser",
               {{"deviceId", kDeviceId},
                {"ownerAccount", "alice@example.com"},
                {"userAccount", "BOB@example.com"}}}},
             _request("deviceAccountLogin", kBob),
             _refused(-20304, "Account is no user of this device")},
        Call{"token",
             {{"bindDevice", kAlice}},
             _request("getDeviceTokenWithServices",
                      {{"deviceId", kDeviceId}, {"serviceIds", {"eweb", "other", 1}}}),
             R"({"error_code":0,"result":{"deviceToken":"7f3a90c2d6e84b15","expiresIn":7200,)"
             R"("serviceUrls":{"eweb":"https://eweb.example.com/device"}}})"},
        Call{"newest_firmware",
             {},
             _request("getIntlFwList", {{"devFwCurrentVer", "1.0.10"}}),
             R"({"error_code":0,"result":{"fwList":[]}})"},
        Call{"passthrough",
             {},
             _request("getWeather", 5),
             R"({"error_code":0,"result":{"city":"Exampleville","sky":"clear","celsius":21}})"},
        Call{"unknown", {}, R"({"method":"a"})", _refused(-20103, "Method doesn't exist")},
        Call{"no_method", {}, "{}", _refused(-20101, "Not a request")},
        Call{"no_json", {}, "{\"method\":", _refused(-20101, "Not a request")},
        Call{"no_utf8", {}, "{\"method\":\"\xFF\xFE\"}", _refused(-20103, "Method doesn't exist")},
        Call{"deep", {}, std::string(200000, '['), _refused(-20101, "Not a request")}),
    [](const auto &row) { return row.param.name; });

}  // namespace
}  // namespace emulator
