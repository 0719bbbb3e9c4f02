#include "cloud_curl.h"

#include "cloud_util.h"

#ifdef CLOUD_CURL_LINKED

const CurlApi *cloud_curl() {
    static constexpr CurlApi kApi{curl_global_init,  curl_global_cleanup, curl_easy_init,
                                  curl_easy_cleanup, curl_easy_setopt,    curl_easy_getinfo,
                                  curl_easy_perform, curl_easy_strerror};
    return &kApi;
}

#else

#include <dlfcn.h>

namespace {

constexpr char kLibraryName[] = "libcurl.so.4";

constinit CurlApi l_api{};

template <class Function>
bool _resolve(void *library, const char *name, Function *function) {
    *function = reinterpret_cast<Function>(dlsym(library, name));
    return *function != nullptr;
}

bool _resolve_all(void *library, CurlApi *api) {
    return _resolve(library, "curl_global_init", &api->globalInit) &&
           _resolve(library, "curl_global_cleanup", &api->globalCleanup) &&
           _resolve(library, "curl_easy_init", &api->easyInit) &&
           _resolve(library, "curl_easy_cleanup", &api->easyCleanup) &&
           _resolve(library, "curl_easy_setopt", &api->easySetopt) &&
           _resolve(library, "curl_easy_getinfo", &api->easyGetinfo) &&
           _resolve(library, "curl_easy_perform", &api->easyPerform) &&
           _resolve(library, "curl_easy_strerror", &api->easyStrerror);
}

}  // namespace

const CurlApi *cloud_curl() {
    if (l_api.easyStrerror != nullptr) {
        return &l_api;
    }
    // Stays open until the end: the libraries below it leave handlers behind that run at exit.
    void *library = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr || !_resolve_all(library, &l_api)) {
        CLOUD_LOG("open %s failed: %s\n", kLibraryName, dlerror());
        l_api = {};
        return nullptr;
    }
    return &l_api;
}

#endif
