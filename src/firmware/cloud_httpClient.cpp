#include "cloud_httpClient.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "cloud_exchangeConfig.h"
#include "cloud_httpOptions.h"
#include "cloud_number.h"
#include "cloud_owner.h"
#include "cloud_path.h"
#include "cloud_replaceFile.h"
#include "cloud_util.h"

constinit HttpClientFileInfo g_httpClientFileInfo{};

namespace {

constexpr size_t kNameRecordRoom = 2048;
constexpr int32_t kPercentDone = 100;
constexpr mode_t kTargetMode = 0666;
constexpr int kFailuresMax = 5;  // in a row, without a byte
constexpr double kNothing = 0.0001;
constexpr unsigned int kModeEnd = 2;

constinit uint32_t localFileSize = 0;  // bytes present at the start of a transfer, its resume offset

// libcurl, told to use no signals, leaves this one to the program: where its TLS library writes plainly, a
// lost connection would end the program, and its lock would stay.
class SigpipeIgnored {
public:
    SigpipeIgnored() {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &ignore, &before_);
    }
    ~SigpipeIgnored() { sigaction(SIGPIPE, &before_, nullptr); }
    SigpipeIgnored(const SigpipeIgnored &) = delete;
    SigpipeIgnored &operator=(const SigpipeIgnored &) = delete;

private:
    struct sigaction before_ {};
};

// The plain quotient: above 100 where more is here than the server announced.
[[nodiscard]] int32_t _percent(double part, double whole) {
    return cloud_clampTo<int32_t>(part * 100.0 / whole);
}

// What cannot be removed, as a mounted file cannot, is emptied.
[[nodiscard]] bool _discard_partial() {
    if (unlink(kPartialImagePath) == 0 || errno == ENOENT) {
        return true;
    }
    const UniqueFd file = cloud_openOwn(kPartialImagePath, O_WRONLY);
    return file.ok() && ftruncate(file.get(), 0) == 0;
}

// A partial image counts only for the image whose name was recorded with it.
// @return false when one of another image is there to stay.
[[nodiscard]] bool _verifyDLImgName(const char *name) {
    struct stat finished {};
    if (lstat(kFinishedImagePath, &finished) == 0 && S_ISREG(finished.st_mode)) {
        CLOUD_LOG("httpUploadFile.bin exist, rename it cloud_up_img.bin");
        rename(kFinishedImagePath, kPartialImagePath);
    }
    const UniqueFd file = cloud_openOwn(kImageNamePath, O_RDONLY);
    if (file.get() <= 0) {  // Contract: descriptor 0 counts as none here.
        return true;
    }
    std::array<char, kNameRecordRoom> recorded{};
    if (read(file.get(), recorded.data(), recorded.size() - 1) < 0) {
        return true;  // an unreadable record says nothing about the image
    }
    if (strncmp(recorded.data(), name, kLocalPathRoom) != 0) {
        CLOUD_LOG("different up-image, remove old one.");
        return _discard_partial();
    }
    return true;
}

// Replaced as a whole: a run killed here must not leave a record that disowns the partial image.
[[nodiscard]] bool _record(const char *path, const char *text) {
    switch (cloud_replaceFile(path, text)) {
        case kReplaced:
            return true;
        case kReplaceOpenFailed:
            CLOUD_LOG("open %s failed.", path);
            return false;
        case kReplaceWriteFailed:
            CLOUD_LOG("write %s failed.", path);
            return true;  // the name may still find room
    }
    return false;
}

void _recordDLImgInfo(double length, const char *name) {
    std::array<char, kNumberRoom> text;
    snprintf(text.data(), text.size(), "%d\n", cloud_clampTo<int32_t>(length));
    if (_record(kImageSizePath, text.data())) {
        static_cast<void>(_record(kImageNamePath, name));
    }
}

// @param status  of the opened target; zeros when there is none.
void _measure_partial(const struct stat &status, const char *localPath) {
    localFileSize = cloud_clampTo<uint32_t>(static_cast<double>(status.st_size));
    CLOUD_LOG("current image size is: %u[%s]", localFileSize, localPath);
}

// From here on the path is the partial image's, and what it holds is the resume offset. What is measured is
// what is then written to: a look at the name could fail, or see another file. A byte counts when the file
// holds it: with a buffer in between, what a full disk then refuses would be counted, and the next run would
// resume behind a gap.
// @param create  false: a mode that fetches nothing leaves no file behind.
[[nodiscard]] UniqueFile _open_target(char *localPath, bool create) {
    memset(localPath, 0, kLocalPathRoom);
    memcpy(localPath, kPartialImagePath, sizeof(kPartialImagePath));
    UniqueFd fd = cloud_openOwn(localPath, O_RDWR | O_APPEND | (create ? O_CREAT : 0), kTargetMode);
    struct stat status {};
    UniqueFile file(fd.ok() && fstat(fd.get(), &status) == 0 ? fdopen(fd.get(), "ab+") : nullptr);
    if (file == nullptr && create) {
        CLOUD_LOG("open %s failed.", localPath);
        return nullptr;
    }
    _measure_partial(status, localPath);
    if (file == nullptr) {
        return nullptr;
    }
    static_cast<void>(fd.release());  // the stream's now
    setvbuf(file.get(), nullptr, _IONBF, 0);
    return file;
}

[[nodiscard]] int _set_resume_breakpoint(CURL *curl) {
    localFileSize = cloud_clampTo<uint32_t>(g_httpClientFileInfo.localFileLength);
    CLOUD_LOG("localFileSize:%lu\n", static_cast<unsigned long>(localFileSize));
    // Contract: the text names another option.
    return setCurlNumber(curl, CURLOPT_RESUME_FROM, static_cast<long>(localFileSize),
                         "Set CURLOPT_HEADER failed: %s\n");
}

[[nodiscard]] int _set_target(CURL *curl, FILE *file) {
    // Contract: set twice, and the second text names another option.
    if (setCurlPointer(curl, CURLOPT_WRITEDATA, file, "set CURLOPT_FILE failed: %s\n") != 0) {
        return -1;
    }
    return setCurlPointer(curl, CURLOPT_WRITEDATA, file, "Set CURLOPT_WRITEFUNCTION failed: %s\n");
}

// Transfers until all is here or nothing more comes.
// @param lastCode  receives libcurl's code of the last transfer.
[[nodiscard]] int _run_transfers(const HttpClientFileInfo *info, CURL *curl, CURLcode *lastCode) {
    double lastLength = info->localFileLength;
    int failures = 0;
    int result = 0;
    while (failures < kFailuresMax) {
        if (!(info->localFileLength < info->totalFileLength)) {
            return 0;
        }
        if (_set_resume_breakpoint(curl) != 0) {
            return -1;
        }
        const CURLcode code = cloud_curl()->easyPerform(curl);
        *lastCode = code;
        CLOUD_LOG("httpClientFileInfo.localFileLength:%f tmpFileLen:%f\n", info->localFileLength, lastLength);
        // Contract: whatever the code; the message speaks of a time-out all the same.
        if (info->localFileLength - lastLength > kNothing) {
            CLOUD_LOG("CURLE_OPERATION_TIMEOUTED, continue to download.\n");
            lastLength = info->localFileLength;
            failures = 0;
            continue;
        }
        // Contract: its code decides, also where it takes a refused range (416) for the end of the image, as
        // newer versions always do and older ones without a Content-Range.
        if (code == CURLE_OK) {
            return result;
        }
        CLOUD_LOG("curl_easy_perform() failed: %d %s\n", code, cloud_curl()->easyStrerror(code));
        ++failures;
        result = -1;
    }
    return result;
}

[[nodiscard]] int _download_resume_from_breakpoint(const char *path, FILE *file,
                                                   const HttpClientFileInfo *info, CURL *curl) {
    if (path == nullptr || info == nullptr || curl == nullptr || _set_target(curl, file) != 0) {
        return -1;
    }
    CURLcode lastCode = CURLE_OK;
    const int result = _run_transfers(info, curl, &lastCode);
    if (result != 0 && lastCode == CURLE_RANGE_ERROR) {
        // A server without ranges would refuse every later run as well: the next one starts at 0.
        static_cast<void>(_discard_partial());
    }
    return result;
}

void _start_progress(double total) {
    g_httpClientFileInfo = {};
    g_httpClientFileInfo.totalFileLength = total;
    g_httpClientFileInfo.localFileLength = localFileSize;
    if (total > 0) {
        g_httpClientFileInfo.progress = _percent(localFileSize, total);
        cloud_setFirmwareDownloadStatus(kFwStarting, g_httpClientFileInfo.progress);
    }
}

}  // namespace

size_t getWriteData(char *data, size_t size, size_t count, void *stream) {
    const size_t written = size * fwrite(data, size, count, static_cast<FILE *>(stream));
    HttpClientFileInfo &info = g_httpClientFileInfo;
    info.localFileLength += static_cast<double>(written);
    if (!(info.totalFileLength > 0)) {
        CLOUD_LOG("file's length doesn't bigger than 0!\n");
        return written;
    }
    const int32_t percent = _percent(info.localFileLength, info.totalFileLength);
    if (percent != info.progress) {
        info.progress = percent;
        cloud_setFirmwareDownloadStatus(kFwDownloading, percent);
    }
    return written;
}

int getLocalFileLen(const char *path, uint32_t *sizeOut) {
    struct stat status {};
    if (stat(path, &status) != 0) {
        CLOUD_LOG("%s doesn't exist!\n", path);
        return -1;
    }
    *sizeOut = cloud_clampTo<uint32_t>(static_cast<double>(status.st_size));
    return 0;
}

int cloud_httpClientGet(const char *url, char *localPath, unsigned int mode) {
    if (url == nullptr) {
        CLOUD_LOG("URL is NULL!\n");
        return -1;
    }
    if (localPath == nullptr) {
        return -1;
    }
    CLOUD_LOG("URL: %s", url);
    const SigpipeIgnored ignored;
    CURL *handle = nullptr;
    if (initCurlEasyHandle(&handle) != 0) {
        CLOUD_LOG("initCurlEasyHandle failed!\n");
        return -1;
    }
    const CurlHandle curl(handle);
    if (setCommonOptions("get", curl.get(), url) != 0) {
        CLOUD_LOG("Set Options failed!\n");
        return -1;
    }
    double length = -1.0;
    const int asked = getDownloadFileLen(curl.get(), url, &length);  // Contract: looked at after the records.
    if (!_verifyDLImgName(localPath)) {
        CLOUD_LOG("open %s failed.", kPartialImagePath);
        return -1;  // and the record goes on telling the next run whose image that is
    }
    _recordDLImgInfo(length, localPath);
    CLOUD_LOG("getDownloadFileLen filelen = %.0f\n", length);
    if (asked != 0) {
        CLOUD_LOG("getDownloadFileLen failed!\n");
        return -1;
    }
    const UniqueFile file = _open_target(localPath, mode < kModeEnd);
    if (mode >= kModeEnd) {
        CLOUD_LOG("get resource invalid!\n");
        return -1;
    }
    if (file == nullptr) {
        return -1;
    }
    CLOUD_LOG("get firmware ... \n");
    _start_progress(length);
    if (resumeSomeOptions(curl.get(), getWriteData) != 0) {
        CLOUD_LOG("Set Options failed!\n");
        return -1;
    }
    return _download_resume_from_breakpoint(localPath, file.get(), &g_httpClientFileInfo, curl.get());
}

int cloud_httpClientDownloadFile(const char *url, char *localPath, unsigned int mode) {
    if (url == nullptr) {
        CLOUD_LOG("URL is NULL!\n");
        return -1;
    }
    const char *pageFilename = cloud_getFilename(url);
    if (pageFilename == nullptr) {
        CLOUD_LOG("Not a valid URL!\n");
        return -1;
    }
    if (localPath == nullptr) {
        return -1;
    }
    CLOUD_LOG("cloud_httpClientGet : pageFilename %s url %s, buff %p\n", pageFilename, url,
              static_cast<void *>(localPath));
    snprintf(localPath, kLocalPathRoom, "/tmp/%s", pageFilename);
    if (cloud_httpClientGet(url, localPath, mode) != 0) {
        CLOUD_LOG("cloud_httpClientGet failed!\n");
        return -1;
    }
    // Contract: an image of unknown length ends at 100 as well.
    if (mode == kFirmwareMode && g_httpClientFileInfo.progress == 0) {
        g_httpClientFileInfo.progress = kPercentDone;
    }
    return 0;
}
