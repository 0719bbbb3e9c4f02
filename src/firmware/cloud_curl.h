// The few functions of libcurl that the download uses.
//
// libcurl and the libraries that it loads are far larger than this program, and one command alone needs them:
// libcurl is opened when that command runs. A build for a device may link it instead (CLOUD_CURL=link), and
// this table then holds the functions themselves. For one thread.
#pragma once

// The length as a double and the protocol masks are what every libcurl in use has, old and new; newer
// headers mark them deprecated.
#ifndef CURL_DISABLE_DEPRECATION
#define CURL_DISABLE_DEPRECATION
#endif
#include <curl/curl.h>
// Calls go through a table; the header's type checks wrap the plain names only.
#undef curl_easy_setopt
#undef curl_easy_getinfo

struct CurlApi {
    decltype(&curl_global_init) globalInit;
    decltype(&curl_global_cleanup) globalCleanup;
    decltype(&curl_easy_init) easyInit;
    decltype(&curl_easy_cleanup) easyCleanup;
    decltype(&curl_easy_setopt) easySetopt;
    decltype(&curl_easy_getinfo) easyGetinfo;
    decltype(&curl_easy_perform) easyPerform;
    decltype(&curl_easy_strerror) easyStrerror;
};

/// @return the functions, valid until the program ends; null when the library cannot be had (logged).
[[nodiscard]] const CurlApi *cloud_curl();
