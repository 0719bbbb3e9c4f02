#include "cloud_cloudErrorHandler.h"

#include "cloud_util.h"

int cloud_cloudServerErrMsgHandle(const char *errorCode) {
    if (errorCode == nullptr) {
        CLOUD_LOG("error code is NULL!\n");
        return 0;
    }
    CLOUD_LOG("Cloud Server response error message, error code is %s!\n", errorCode);
    return 1;
}

void cloud_handleServerError(const char *errorCode, const char *errMsg) {
    if (errMsg == nullptr) {
        CLOUD_LOG("errMsg is NULL\n");
        return;
    }
    if (cloud_cloudServerErrMsgHandle(errorCode) == 0) {
        CLOUD_LOG("handle error message failed!\n");
        return;
    }
    CLOUD_LOG("handle error message succeed!\n");
}
