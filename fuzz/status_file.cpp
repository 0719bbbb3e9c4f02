// "/tmp/cloud.info", which another component makes and this program extends.
#include "cloud_exchangeConfig.h"
#include "cloud_owner.h"
#include "cloud_path.h"
#include "fuzz.h"

FUZZ_TARGET(status_file) {
    fuzz::put_file(kStatusPath, input);
    const int done = cloud_setFirmwareDownloadStatus(kFwDownloading, 42);
    fuzz::calm();
    const std::string after = fuzz::file(kStatusPath);
    if (done == 0) {
        FUZZ_HOLDS(after == input);
        return;
    }
    const JsonTree document(cJSON_Parse(after.c_str()));
    FUZZ_HOLDS(document != nullptr && cJSON_GetArraySize(document.get()) >= 2);
    const cJSON *last = document->child->prev;  // the list's end
    FUZZ_HOLDS(std::string_view(last->string) == "dwProgress" && last->valueint == 42);
    FUZZ_HOLDS(std::string_view(last->prev->string) == "fw_status" && last->prev->valueint == kFwDownloading);
}
