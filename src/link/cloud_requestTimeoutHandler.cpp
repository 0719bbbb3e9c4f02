#include "cloud_requestTimeoutHandler.h"

#include <array>

#include "cloud_exchangeConfig.h"
#include "cloud_util.h"
#include "kxcc.h"

namespace {

constexpr int kUserThreshold = 2;
constexpr int kAutoThreshold = 3;

struct TimeoutObject {
    int count;  // in a row
    void (*handler)();
};

constinit std::array<TimeoutObject, kRequestTypeEnd + 1> l_reqTimeoutObj{{
    {0, nullptr},
    {0, cloudCheckFwExpired},
    {0, cloudDownloadFwExpired},
    {0, notifyEventExpired},
    {0, nullptr},
}};

}  // namespace

void cloud_handleTimeout(int /*type*/) {
    l_reqTimeoutObj[kRequestFwCheck].handler();
}

void cloud_initReqTimeoutCount(int type) {
    if (type > kRequestNone && type < kRequestTypeEnd) {
        l_reqTimeoutObj[static_cast<size_t>(type)].count = 0;
        return;
    }
    CLOUD_LOG("initialize all count 0.\n");
    for (size_t i = kRequestNone + 1; i < kRequestTypeEnd; ++i) {
        l_reqTimeoutObj[i].count = 0;
    }
}

void requestTimeoutCount(int type, int byUser) {
    if (type < kRequestNone || type > kRequestTypeEnd) {
        return;
    }
    int &count = l_reqTimeoutObj[static_cast<size_t>(type)].count;
    const bool user = byUser != 0;
    const int threshold = user ? kUserThreshold : kAutoThreshold;
    ++count;
    if (count < threshold) {
        return;
    }
    CLOUD_LOG("%s request timeout %d times successively, recreate ssl path.\n", user ? "user" : "auto",
              threshold);
    if (kxcc_notify_cloud_brd(user ? KXCC_EVENT_USER_TIMEOUTS : KXCC_EVENT_TIMEOUTS) != 0) {
        CLOUD_LOG("reconstruct ssl path path failed!\n");
        return;  // Contract: the count stays, so the next time-out asks again.
    }
    count = 0;
}

void cloudCheckFwExpired() {
    CLOUD_LOG("CheckFw timeout!\n");
    cloud_setFirmwareUpgradeStart(0);
    cloud_setFirmwareDownloadStatus(kFwCheckFailed, 0);
    requestTimeoutCount(kRequestFwCheck, 1);
}

void cloudDownloadFwExpired() {
    CLOUD_LOG("DownloadFw timeout!\n");
    cloud_setFirmwareUpgradeStart(0);
    cloud_setFirmwareDownloadStatus(kFwDownloadFailed, 0);
    requestTimeoutCount(kRequestFwDownload, 1);
}

void notifyEventExpired() {
    CLOUD_LOG("notifyEvent timeout!\n");
}
