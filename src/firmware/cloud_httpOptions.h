// The libcurl handle of the image download: its life, its options, and the question for the image's length.
// Only http and https are fetched; a redirect from an https address leads to https only. A failed option is
// logged by its name. For one thread.
#pragma once

#include "cloud_curl.h"
#include "cloud_owner.h"

/// libcurl's write callback: returns the bytes taken; fewer than size * count end the transfer.
using CurlWriter = size_t (*)(char *data, size_t size, size_t count, void *stream);

/// Prepares libcurl and makes a handle. @param curlOut  receives it; given back with cleanupCurlEasyHandle.
/// @return 0; -1 on failure (logged).
[[nodiscard]] int initCurlEasyHandle(CURL **curlOut);

/// Gives back a handle and what libcurl holds beside it. @return 0.
int cleanupCurlEasyHandle(CURL *curl);

/// Owns a handle of initCurlEasyHandle.
using CurlHandle = std::unique_ptr<CURL, Releaser<cleanupCurlEasyHandle>>;

/// Sets what all transfers have in common; whatever arrives is dropped. A transfer ends when less than a
/// byte a second arrives for 5 seconds; there is no limit on its length.
/// @param httpMethod  must not be null, and is not used. @return 0; -1 on failure (logged).
[[nodiscard]] int setCommonOptions(const char *httpMethod, CURL *curl, const char *url);

/// Asks the server for the image's length, by a HEAD request.
/// @param url        not used.
/// @param lengthOut  receives bytes; -1 when the server does not say. @return 0; -1 on failure (logged).
[[nodiscard]] int getDownloadFileLen(CURL *curl, const char *url, double *lengthOut);

/// Turns the handle to fetching the body. @param writeFunction  receives it. @return 0; -1 (logged).
[[nodiscard]] int resumeSomeOptions(CURL *curl, CurlWriter writeFunction);

/// Sets one option.
/// @param value   stays the caller's. @param format  message with "%s" for libcurl's text of the failure.
/// @return 0; -1 on failure (logged).
[[nodiscard]] int setCurlNumber(CURL *curl, CURLoption option, long value, const char *format);
[[nodiscard]] int setCurlPointer(CURL *curl, CURLoption option, const void *value, const char *format);
