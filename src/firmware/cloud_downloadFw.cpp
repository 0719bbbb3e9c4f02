#include "cloud_downloadFw.h"

#include <cstdio>
#include <cstdlib>

#include "cloud_exchangeConfig.h"
#include "cloud_httpClient.h"
#include "cloud_path.h"
#include "cloud_util.h"

constinit uint16_t g_fwDownloadFlag = 0;

namespace {

constexpr size_t kUpdateBufferBytes = 10UL * 1024 * 1024 + 260;

}  // namespace

int cloud_downloadFwByHttp(DownloadInfo *downloadInfo) {
    if (downloadInfo == nullptr) {
        CLOUD_LOG("downloadFwInfo is null ptr\n");
        return 0;
    }
    if (downloadFwByHttpClient(downloadInfo) != 0) {
        CLOUD_LOG("downloadFwByHttpClient failed.\n");
        return 0;
    }
    cloud_sleep(1);
    return 1;
}

int downloadFwByHttpClient(DownloadInfo *downloadInfo) {
    if (downloadInfo == nullptr) {
        CLOUD_LOG("downloadFwInfo is null ptr\n");
        return -1;
    }
    CLOUD_LOG("update firmware online ...\n");
    CLOUD_LOG("download firmware %s begin\n", downloadInfo->url);
    int32_t &progress = g_httpClientFileInfo.progress;
    progress = 0;
    const int result =
        cloud_httpClientDownloadFile(downloadInfo->url, downloadInfo->localPath, kFirmwareMode);
    if (result != 0) {
        CLOUD_LOG("cloud_httpClientDownloadFile failed, url:%s, progress:%d\n", downloadInfo->url, progress);
        cloud_setFirmwareDownloadStatus(kFwDownloadFailed, progress);
        g_fwDownloadFlag = 0;
        return -1;
    }
    CLOUD_LOG("download firmware end, progress:%d\n", progress);
    cloud_setFirmwareDownloadStatus(kFwDownloaded, progress);
    g_fwDownloadFlag = 0;
    CLOUD_LOG("download local file path: %s\n", downloadInfo->localPath);
    rename(downloadInfo->localPath, kFinishedImagePath);
    return 0;
}

size_t cmem_getUpdateBufSize() {
    return kUpdateBufferBytes;
}

void *cmem_updateFirmwareBufMalloc() {
    void *buffer = malloc(cmem_getUpdateBufSize());
    return buffer != nullptr ? buffer : malloc(cmem_getUpdateBufSize());
}

int cmem_updateFirmwareBufFree(void *buffer) {
    CLOUD_ASSERT(buffer != nullptr, "pBuf != ((void *)0)");
    free(buffer);  // Contract: the caller's bare pointer, as it was handed out.
    return 1;
}
