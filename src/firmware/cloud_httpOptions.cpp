#include "cloud_httpOptions.h"

#include <strings.h>

#include "cloud_util.h"

// Where the certificates of trusted authorities are; empty: where libcurl was built to look.
#ifndef CLOUD_CA_FILE
#define CLOUD_CA_FILE ""
#endif

namespace {

constexpr char kCaFile[] = CLOUD_CA_FILE;
constexpr char kSecureScheme[] = "https:";
constexpr long kGlobalFlags = 3;  // everything libcurl may need
constexpr long kLowSpeedBytes = 1;
constexpr long kLowSpeedS = 5;
constexpr long kRedirectMax = 30;            // older libraries have no limit of their own
constexpr long kReceiveBytes = 128L * 1024;  // 16 KiB, the default, cost a fifth more time
constexpr long kProtocols = CURLPROTO_HTTP | CURLPROTO_HTTPS;

struct NumberOption {
    CURLoption option;
    long value;
    const char *format;
};

constexpr NumberOption kCommonOptions[] = {
    {CURLOPT_VERBOSE, 0, "Set CURLOPT_VERBOSE failed: %s\n"},
    {CURLOPT_AUTOREFERER, 1, "Set CURLOPT_AUTOREFERER failed: %s\n"},
    {CURLOPT_FOLLOWLOCATION, 1, "Set CURLOPT_FOLLOWLOCATION failed: %s\n"},
    {CURLOPT_TIMEOUT_MS, 0, "Set CURLOPT_TIMEOUT_MS failed: %s\n"},
    {CURLOPT_CONNECTTIMEOUT_MS, 0, "Set CURLOPT_CONNECTTIMEOUT_MS failed: %s\n"},
    {CURLOPT_NOSIGNAL, 1, "Set CURLOPT_NOSIGNAL failed: %s\n"},
    {CURLOPT_FAILONERROR, 1, "Set CURLOPT_FAILONERROR failed: %s\n"},
    {CURLOPT_LOW_SPEED_LIMIT, kLowSpeedBytes, "Set CURLOPT_LOW_SPEED_LIMIT failed: %s\n"},
    {CURLOPT_LOW_SPEED_TIME, kLowSpeedS, "Set CURLOPT_LOW_SPEED_TIME failed: %s\n"},
    {CURLOPT_PROTOCOLS, kProtocols, "Set CURLOPT_PROTOCOLS failed: %s\n"},
    {CURLOPT_MAXREDIRS, kRedirectMax, "Set CURLOPT_MAXREDIRS failed: %s\n"},
    {CURLOPT_BUFFERSIZE, kReceiveBytes, "Set CURLOPT_BUFFERSIZE failed: %s\n"},
};

// The answer to the question for the length is header lines, which libcurl would print.
size_t _drop(char * /*data*/, size_t size, size_t count, void * /*stream*/) {
    return size * count;
}

int _check(CURLcode code, const char *format) {
    if (code == CURLE_OK) {
        return 0;
    }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    CLOUD_LOG(format, cloud_curl()->easyStrerror(code));
#pragma GCC diagnostic pop
    return -1;
}

int _set_writer(CURL *curl, CurlWriter writer) {
    return _check(cloud_curl()->easySetopt(curl, CURLOPT_WRITEFUNCTION, writer),
                  "Set CURLOPT_WRITEFUNCTION failed: %s\n");
}

}  // namespace

int setCurlNumber(CURL *curl, CURLoption option, long value, const char *format) {
    return _check(cloud_curl()->easySetopt(curl, option, value), format);
}

int setCurlPointer(CURL *curl, CURLoption option, const void *value, const char *format) {
    return _check(cloud_curl()->easySetopt(curl, option, value), format);
}

int initCurlEasyHandle(CURL **curlOut) {
    if (curlOut == nullptr) {
        CLOUD_LOG("ptrCurl is null!\n");
        return -1;
    }
    const CurlApi *api = cloud_curl();
    if (api == nullptr) {
        return -1;
    }
    const CURLcode code = api->globalInit(kGlobalFlags);
    if (code != CURLE_OK) {
        CLOUD_LOG("curl_global_init failed: %s\n", api->easyStrerror(code));
        return -1;
    }
    *curlOut = api->easyInit();
    if (*curlOut == nullptr) {
        CLOUD_LOG("init Curl handle failed!\n");
        api->globalCleanup();
        return -1;
    }
    return 0;
}

int cleanupCurlEasyHandle(CURL *curl) {
    const CurlApi *api = cloud_curl();
    if (api != nullptr) {
        api->easyCleanup(curl);
        api->globalCleanup();
    }
    return 0;
}

int setCommonOptions(const char *httpMethod, CURL *curl, const char *url) {
    if (httpMethod == nullptr || curl == nullptr || url == nullptr) {
        CLOUD_LOG("Null ptr httpMethod:%p or curl:%p or url:%p\n", static_cast<const void *>(httpMethod),
                  curl, static_cast<const void *>(url));
        return -1;
    }
    if (setCurlPointer(curl, CURLOPT_URL, url, "Set CURLOPT_URL failed: %s\n") != 0) {
        return -1;
    }
    for (const NumberOption &option : kCommonOptions) {
        if (setCurlNumber(curl, option.option, option.value, option.format) != 0) {
            return -1;
        }
    }
    // What was asked for over https is not fetched over http.
    const long redirects =
        strncasecmp(url, kSecureScheme, sizeof(kSecureScheme) - 1) == 0 ? CURLPROTO_HTTPS : kProtocols;
    if (setCurlNumber(curl, CURLOPT_REDIR_PROTOCOLS, redirects, "Set CURLOPT_REDIR_PROTOCOLS failed: %s\n") !=
        0) {
        return -1;
    }
    if (kCaFile[0] != '\0' &&
        setCurlPointer(curl, CURLOPT_CAINFO, kCaFile, "Set CURLOPT_CAINFO failed: %s\n") != 0) {
        return -1;
    }
    return _set_writer(curl, _drop);
}

int getDownloadFileLen(CURL *curl, const char * /*url*/, double *lengthOut) {
    if (setCurlNumber(curl, CURLOPT_HEADER, 1, "Set CURLOPT_HEADER failed: %s\n") != 0 ||
        setCurlNumber(curl, CURLOPT_NOBODY, 1, "Set CURLOPT_NOBODY failed: %s\n") != 0) {
        return -1;
    }
    const CurlApi *api = cloud_curl();
    if (_check(api->easyPerform(curl), "curl_easy_perform failed: %s\n") != 0) {
        return -1;
    }
    return _check(api->easyGetinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD, lengthOut),
                  "get file's size failed: %s\n");
}

int resumeSomeOptions(CURL *curl, CurlWriter writeFunction) {
    if (setCurlNumber(curl, CURLOPT_NOBODY, 0, "Set CURLOPT_NOBODY failed: %s\n") != 0 ||
        setCurlNumber(curl, CURLOPT_HEADER, 0, "Set CURLOPT_HEADER failed: %s\n") != 0) {
        return -1;
    }
    return _set_writer(curl, writeFunction);
}
