#include "cloud_localMsgHandler.h"

int cloud_localMsgTask(unsigned int /*code*/) {
    return 0;
}
