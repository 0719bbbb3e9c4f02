#include "cloud_deviceInfo.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "cloud_path.h"
#include "cloud_replaceFile.h"

DeviceInfoError cloud_loadDeviceInfo(int openFlags, size_t bytes, JsonTree *tree) {
    // Zeroed, so that what was read is a text; untouched pages of it cost no memory.
    const HeapText text(static_cast<char *>(calloc(bytes + 1, 1)));
    if (text == nullptr) {
        return DeviceInfoError::kMemory;
    }
    const UniqueFd file = cloud_openSource(kDeviceInfoPath, openFlags);
    if (!file.ok()) {
        return DeviceInfoError::kOpen;
    }
    if (read(file.get(), text.get(), bytes) < 0) {
        return DeviceInfoError::kRead;
    }
    tree->reset(cJSON_Parse(text.get()));
    return *tree == nullptr ? DeviceInfoError::kParse : DeviceInfoError::kNone;
}
