// The device's identity: "/tmp/device.info", then, behind a NUL, "/tmp/softinfo".
#include <cstring>

#include "cloud_accountRequest.h"
#include "cloud_checkFwVersion.h"
#include "cloud_owner.h"
#include "cloud_path.h"
#include "cloud_userConfig.h"
#include "fuzz.h"

FUZZ_TARGET(device_info) {
    const std::string document = fuzz::cut(input);
    fuzz::put_file(kDeviceInfoPath, document);
    fuzz::put_file(kSoftInfoPath, input);
    CheckInfo info{};
    const bool known = cloud_getCheckFwVerInfo(&info) == 1;
    const HeapText check(getFwListCreateJsonMsg(&info));
    const SecretText request = cloud_account::_format_rmuser_msg_req("a", "b");
    fuzz::calm();
    for (const auto &[text, room] : {std::pair<const char *, size_t>{info.sw_version, sizeof info.sw_version},
                                     {info.fw_id, sizeof info.fw_id},
                                     {info.hw_id, sizeof info.hw_id},
                                     {info.oem_id, sizeof info.oem_id},
                                     {info.dev_id, sizeof info.dev_id}}) {
        FUZZ_HOLDS(strnlen(text, room) < room);
    }
    const std::string version(input.substr(0, input.find('\0')));
    FUZZ_HOLDS(!known || version.starts_with(info.sw_version));
    FUZZ_HOLDS(!known || *info.sw_version != '\0' || version.empty());
    const JsonTree tree(cJSON_Parse(document.c_str()));
    const char *devid = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(tree.get(), "devid"));
    FUZZ_HOLDS(!known || std::string_view(devid == nullptr ? "" : devid).starts_with(info.dev_id));
    FUZZ_HOLDS(!known || (devid == nullptr || *devid == '\0') == (*info.dev_id == '\0'));
    FUZZ_EXPECT(!known || request != nullptr);
    FUZZ_HOLDS(request == nullptr || JsonTree(cJSON_Parse(request.get())) != nullptr);
}
