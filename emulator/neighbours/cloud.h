// A model of the cloud: accounts, this device with its owner and users, tokens, firmware.
// Requests and answers are texts, JSON-RPC style. Safe for several threads.
#pragma once

#include <mutex>
#include <string>
#include <string_view>

#include "journal.h"

namespace emulator {

/// Codes of the model's own ("error_code" of an answer).
enum CloudError : int {
    kCloudBadRequest = -20101,     ///< not JSON, or no "method"
    kCloudMissingParams = -20102,  ///< a member of "params" is missing or of a wrong type
    kCloudUnknownMethod = -20103,  ///< "Method doesn't exist"
    kCloudUnknownAccount = -20201,
    kCloudWrongPassword = -20202,
    kCloudUnknownDevice = -20301,
    kCloudBoundToOther = -20302,  ///< the device has another owner
    kCloudNotBound = -20303,      ///< the device has no owner
    kCloudNoPermission = -20304,  ///< the account is not the owner (or no user) of this device
    kCloudUnknownUser = -20305,   ///< no such user of this device
};

class Cloud {
public:
    /// @param model  see docs/emulator.md; members that are given replace the built-in model's.
    /// @throws std::invalid_argument  see change.
    explicit Cloud(const json &model = json::object());

    /// Answers one request, which may be any bytes.
    [[nodiscard]] std::string answer(std::string_view request);

    /// A copy of the model as it stands ("device", "accounts", "token", "firmware", "methods").
    [[nodiscard]] json model() const;

    /// Replaces members of the model: of "device" and "token" one by one, the others as a whole.
    /// @throws std::invalid_argument  a name or a value that no model has; nothing is replaced then.
    void change(const json &members);

    /// The built-in model.
    [[nodiscard]] static json default_model();

    /// Answer texts: {"error_code":0,"result":...} and {"error_code":N,"msg":"..."}.
    [[nodiscard]] static std::string success(const json &result);
    [[nodiscard]] static std::string failure(int code, std::string_view message);

private:
    json _call(const std::string &method, const json &params);

    mutable std::mutex mutex_;
    json model_;  // under mutex_
};

}  // namespace emulator
