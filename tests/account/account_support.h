// What the tests of the account commands share.
#pragma once

#include <string>

#include "program.h"

namespace account {

using namespace program;

inline const std::string kDevice = emulator::kDeviceId;
inline constexpr char kGood[] = R"({"error_code":0,"result":{}})";
inline const std::string kOther = "bob@example.com";

inline std::string base64(const std::string &text) {
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < text.size(); i += 3) {
        unsigned group = 0;
        for (size_t k = 0; k < 3; ++k) {
            group = group << 8U | (i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0U);
        }
        for (size_t k = 0; k < 4; ++k) {
            out += i + k <= text.size() ? kAlphabet[group >> (18 - 6 * k) & 63U] : '=';
        }
    }
    return out;
}

inline void set_store(Device &device, const std::string &name, const json &record) {
    const auto run = device.run({"cloud_store", "set", name, record.dump()});
    ASSERT_EQ(run.status, 0) << run.err;
}

/// A device that its owner has bound; the broker in account mode, the journal empty.
inline void bind_owner(Device &device) {
    ASSERT_EQ(printed(device, {"bind", kOwner, device.encrypt(kOwnerPassword)}), "0\n")
        << device.journal().text();
    wait_for_script(device, "dropbreload");
    device.journal().clear();
}

/// All that the commands keep about the account, as one value.
inline json account_state(Device &device) {
    return {{"account", device.store("account")},
            {"status", device.store("device-status")},
            {"login", file("/tmp/cloud.login")},
            {"mode", device.broker().logic()}};
}

}  // namespace account
