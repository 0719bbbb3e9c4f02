#include "cloud_localMsgHandler.h"

#include <unistd.h>

#include <array>
#include <cstring>

#include "cloud_api_wrap.h"
#include "cloud_checkFwVersion.h"
#include "cloud_downloadHandler.h"
#include "cloud_exchangeConfig.h"
#include "cloud_httpClient.h"
#include "cloud_number.h"
#include "cloud_userConfig.h"
#include "cloud_util.h"
#include "kxcc.h"
#include "wrapper.h"

namespace {

constexpr unsigned int kUpdateDelayS = 5;  // lets the web interface answer first

constexpr int kReconnectWaitS = 5;

void _fail(FwStatus status) {
    cloud_setFirmwareDownloadStatus(status, 0);
    cloud_setFirmwareUpgradeStart(0);
}

// Contract: the call's own result is not looked at, so a call that wrote no reply counts as a good image.
int32_t _verify_image() {
    std::array<unsigned char, WRP_VERIFY_REPLY_BYTES> reply{};  // its first word is the error
    static_cast<void>(wrpOpDo(WRP_VERIFY, nullptr, 0, reply.data(), WRP_VERIFY_REPLY_BYTES, WRP_READ));
    int32_t error = 0;
    memcpy(&error, reply.data(), sizeof error);
    return error;
}

// The reply stays the store's. One without a whole word is no consent.
bool _start_upgrade() {
    uint32_t argument = 0;
    void *reply = nullptr;
    unsigned length = 0;
    if (wrpDoCmdWithoutID(WRP_INSTALL, &argument, sizeof argument, &reply, &length) != 0) {
        return false;
    }
    uint32_t result = 1;
    if (reply == nullptr || length < sizeof result) {
        return false;
    }
    memcpy(&result, reply, sizeof result);
    return result == 0;
}

[[noreturn]] void _wait_for_restart() {
    for (;;) {
        pause();
    }
}

}  // namespace

int fwCheckUpdateMsgHandler() {
    CLOUD_LOG("user call check firmware update service...\n");
    cloud_setFirmwareDownloadStatus(kFwStarting, 0);
    cloud_setFirmwareDownloadStatus(kFwChecking, 0);
    const int result = cloud_userCheckFwVerFromCloud();
    CLOUD_LOG("check firmware version from cloud ret:%d.\n", result);
    if (result != 1) {
        CLOUD_LOG("check firmware version from cloud failed ret:%d.\n", result);
        _fail(kFwCheckFailed);
    }
    CLOUD_LOG("fwCheckUpdateMsgHandler end\n");
    return 1;
}

int fwDownloadMsgHandler() {
    CLOUD_LOG("user call download firmware service...\n");
    cloud_setFirmwareDownloadStatus(kFwStarting, 0);
    UpgradeInfo info{};
    if (cloud_getNewFwInfo(&info) <= 0) {
        CLOUD_LOG("Get firmware upgrade info fail.\n");
        _fail(kFwDownloadFailed);  // Contract: written twice, as the empty address below fails as well.
    }
    if (info.url[0] == '\0') {
        CLOUD_LOG("firmware url is NULL.\n");
        _fail(kFwDownloadFailed);
        return 0;
    }
    const int result = cloud_storeFwMsgInDeviceTree(info.url);
    if (result != 1) {
        CLOUD_LOG("cloud_storeFwMsgInDeviceTree failed ret:%d.\n", result);
        _fail(kFwDownloadFailed);
        return 0;
    }
    downloadHandler();
    g_fwDownloadFlag = 1;  // Contract: set when the download, which clears it, is over.
    CLOUD_LOG("cloud_storeFwMsgInDeviceTree successful.\n");
    return 1;
}

int fwUpdateMsgHander() {
    cloud_sleep(kUpdateDelayS);
    cloud_upgradeFirmware(0);
    return 1;
}

int cloud_upgradeFirmware(int reserved) {
    CLOUD_LOG("Now will check the downloaded image...");
    const int result = verifyAndUpgradeFw(reserved);
    if (result == 1) {  // Contract: never so.
        CLOUD_LOG("Oh no, verifyAndUpgradeFw should not return, we will never get here!\n");
        return 1;
    }
    CLOUD_LOG("Failed to verify cloud firmware.\n");
    cloud_setFirmwareDownloadStatus(kFwVerifyFailed, g_httpClientFileInfo.progress);
    cloud_setFirmwareUpgradeStart(0);
    return 0;
}

int verifyAndUpgradeFw(int reserved) {
    cloud_setFirmwareDownloadStatus(kFwInstalling, g_httpClientFileInfo.progress);
    const auto length = cloud_clampTo<uint32_t>(g_httpClientFileInfo.localFileLength);
    if (cloud_updateFirmware(reserved, length) == 0) {
        CLOUD_LOG("Verify image ok, now will reboot...");
        _wait_for_restart();
    }
    CLOUD_LOG("Verify image failed!");
    return 0;
}

int cloud_updateFirmware(int /*reserved*/, uint32_t /*imageLength*/) {
    CLOUD_LOG("check firmware");
    const int32_t error = _verify_image();
    if (error != 0) {
        CLOUD_LOG("check firmware failed, error = %d", error);
        return 1;
    }
    cloud_clearFwUpInfo();
    const int result = wrpGetTransID(0);
    if (result != 0) {
        CLOUD_LOG("wrpGetTransID failed, ret = %d", result);
        return result;  // Contract: nothing is given back.
    }
    CLOUD_LOG("cloud upgrading!!!");
    if (_start_upgrade()) {
        return 0;
    }
    wrpWithdrawTransID();
    return 1;
}

int reconnCloudSrvHandler() {
    CLOUD_LOG("reconnect cloud server request is triggered!\n");
    if (kxcc_get_link_status() == KXCC_LINK_RECONNECTING) {
        CLOUD_LOG("link is reconnecting, please wait %d s!\n", kReconnectWaitS);
        cloud_sleep(kReconnectWaitS);
    }
    if (cloud_checkSslPath(KXCC_EVENT_RECONNECT, kReconnectWaitS) != kPathGood) {
        CLOUD_LOG("reconnect cloud server failed!\n");
        return 0;
    }
    CLOUD_LOG("reconnect cloud server successfully!\n");
    return 1;
}

int fwDoneMsgHandler() {
    return 1;
}

int fwNotDoneMsgHandler() {
    return 0;
}
