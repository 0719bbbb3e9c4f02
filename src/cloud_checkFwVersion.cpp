#include "cloud_checkFwVersion.h"

int cloud_msg_getFwList() {
    return 0;
}
