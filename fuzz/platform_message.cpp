// What the platform's store answers: a transaction message, in room of its exact size, and records of all
// kinds.
#include <cstdlib>
#include <cstring>

#include "cloud_owner.h"
#include "cloud_userConfig.h"
#include "fuzz.h"

FUZZ_TARGET(platform_message) {
    const unsigned char room = fuzz::cut_byte(input);
    fuzz::fill_store(input);
    LoginInfo login{};
    DeviceInfo device{};
    AccountList account{};
    UpgradeInfo upgrade{};
    static_cast<void>(cloud_getLoginInfo(&login));
    cloud_getDeviceInfo(&device);
    cloud_getAccount(&account);
    static_cast<void>(cloud_getNewFwInfo(&upgrade));
    FUZZ_EXPECT(strnlen(login.userName, sizeof login.userName) < sizeof login.userName);
    FUZZ_EXPECT(strnlen(device.alias, sizeof device.alias) < sizeof device.alias);
    FUZZ_EXPECT(strnlen(account.userName, sizeof account.userName) < sizeof account.userName);
    FUZZ_EXPECT(strnlen(account.password, sizeof account.password) < sizeof account.password);
    FUZZ_EXPECT(strnlen(upgrade.url, sizeof upgrade.url) < sizeof upgrade.url);

    if (input.empty()) {
        return;
    }
    fuzz::calm();
    const HeapText exact(static_cast<char *>(malloc(input.size())));
    memcpy(exact.get(), input.data(), input.size());
    const auto *message = reinterpret_cast<const UcmMessage *>(exact.get());
    if (ucm_ui_resp_check_result(message, static_cast<uint32_t>(input.size())) != 0) {
        return;
    }
    FUZZ_EXPECT(input.size() >= kUcmHeaderSize);
    uint32_t word = 0;
    for (const auto get : {ucm_ui_resp_get_transId, ucm_ui_resp_get_u32, ucm_ui_resp_get_u32_2}) {
        FUZZ_EXPECT(get(message, &word) == 0);
    }
    std::string text(room + 1U, '\xff');
    static_cast<void>(ucm_ui_resp_get_str(message, text.data(), text.size()));
    FUZZ_EXPECT(strlen(text.c_str()) < text.size());
}
