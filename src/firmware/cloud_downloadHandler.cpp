#include "cloud_downloadHandler.h"

#include <pthread.h>
#include <semaphore.h>

#include <cstdlib>

#include "cloud_exchangeConfig.h"
#include "cloud_httpClient.h"
#include "cloud_owner.h"
#include "cloud_util.h"

namespace {

constinit DownloadEntry l_downloadEntry{};  // the pending one
sem_t l_downloadSemaph;                     // Contract: made ready, and nobody waits for it.

void _fail(FwStatus status) {
    cloud_setFirmwareDownloadStatus(status, 0);
    cloud_setFirmwareUpgradeStart(0);
}

void *_run_handler(void * /*argument*/) {
    downloadHandler();
    return nullptr;
}

}  // namespace

int cloud_storeFwMsgInDeviceTree(const char *url) {
    if (url == nullptr) {
        CLOUD_LOG("firmware url is NULL.\n");
        return 0;
    }
    DownloadEntry entry{};
    entry.state = kEntryPending;
    entry.resourceType = kResourceFirmware;
    cstr_strncpy(entry.info.url, url, sizeof entry.info.url);
    if (storeDownloadEntryInDeviceTree(&entry) != 1) {
        CLOUD_LOG("storeDownloadEntryInDeviceTree failed.\n");
        return 0;
    }
    return 1;
}

int storeDownloadEntryInDeviceTree(const DownloadEntry *entry) {
    if (entry == nullptr) {
        CLOUD_LOG("downloadEntryInfo is null ptr.\n");
        return 0;
    }
    if (l_downloadEntry.state == kEntryPending) {
        CLOUD_LOG("Firmware is being downloaded.\n");
        return 0;
    }
    l_downloadEntry = *entry;
    CLOUD_LOG("store download entry in device tree successful!\n");
    return 1;
}

int downloadHandler() {
    CLOUD_LOG("Enter download handler, download firmware from cloud...\n");
    CLOUD_LOG("Begin to process new download entry.............\n");
    DownloadEntry &entry = l_downloadEntry;
    if (entry.state == kEntryFree) {
        CLOUD_LOG("Exception: Download entry is not correct.\n");
        _fail(kFwDownloadFailed);
        return 0;
    }
    const HeapText localPath(static_cast<char *>(calloc(1, kLocalPathRoom)));
    if (localPath == nullptr) {
        CLOUD_LOG("Failed to allocate buffer for cloud firmware.");
        _fail(kFwNoMemory);
        entry.state = kEntryFree;
        return 1;
    }
    entry.info.localPath = localPath.get();
    CLOUD_LOG("download %s form cloud.\n", entry.resourceType == kResourceFirmware ? "firmware" : "unknow");
    if (downloadFromCloud(&entry) == 1) {
        CLOUD_LOG("downloadFromCloud successful.\n");
    } else {
        _fail(kFwDownloadFailed);
        CLOUD_LOG("downloadFromCloud failed.\n");
    }
    entry.state = kEntryFree;
    entry.info.localPath = nullptr;
    return 1;
}

int downloadFromCloud(DownloadEntry *entry) {
    CLOUD_LOG("download resource from cloud.\n");
    if (entry == nullptr) {
        CLOUD_LOG("downloadEntryInfo is null ptr.\n");
        return 0;
    }
    if (entry->resourceType != kResourceFirmware) {
        CLOUD_LOG("resource type is invalid.\n");
        return 0;
    }
    CLOUD_LOG("update firmware...\n");
    return cloud_downloadFwByHttp(&entry->info);
}

int cloud_initPthreadDownloadHandler() {
    if (sem_init(&l_downloadSemaph, 0, 0) != 0) {
        CLOUD_LOG("semaphore initialization failed.\n");
        return 0;
    }
    l_downloadEntry = {};
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, _run_handler, nullptr) != 0) {
        CLOUD_LOG("create thread(downloadHandler) failed!\n");
        return 0;
    }
    pthread_detach(thread);  // it ends by itself, and nobody asks for its result
    CLOUD_LOG("init download handler success!\n");
    return 1;
}
