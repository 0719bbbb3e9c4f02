#include "cloud_accept.h"

#include <kxcc.h>

#include "cloud_ipc.h"
#include "cloud_json.h"
#include "cloud_wire.h"

bool cloud_api_accept(int fd, const LogSite &site, const char *code) {
    uint32_t type = 0;
    char *received = nullptr;
    const int32_t result = cloud_ipc_recv(fd, &type, &received);
    const HeapText body(received);
    if (result != KXCC_OK) {
        CLOUD_LOG_FOR(LogLevel::kError, site, "ipc recv error");
        return false;
    }
    if (type != static_cast<uint32_t>(Message::kAccept)) {
        CLOUD_LOG_FOR(LogLevel::kError, site, "client receive type not ACCEPT");
        return false;
    }
    const JsonTree tree = cloud_json_parse(body.get());
    if (tree == nullptr) {
        CLOUD_LOG_FOR(LogLevel::kError, site, "json parse error");
        return false;
    }
    int32_t errorCode = 0;
    if (!cloud_json_int(tree.get(), "errorcode", &errorCode)) {
        CLOUD_LOG_FOR(LogLevel::kError, site, "json get object error");
        return false;
    }
    if (errorCode != 0) {
        CLOUD_LOG_FOR(LogLevel::kError, site, "daemon accept not success, %s:%d", code, errorCode);
        return false;
    }
    int32_t place = 0;
    if (!cloud_json_int(tree.get(), "result", &place)) {
        CLOUD_LOG_FOR(LogLevel::kError, site, "json get object error");
        return false;
    }
    if (place == kAcceptFull) {
        CLOUD_LOG_FOR(LogLevel::kError, site, "daemon accept full");
        return false;
    }
    return true;
}
