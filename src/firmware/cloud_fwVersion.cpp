#include "cloud_fwVersion.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "cloud_number.h"
#include "cloud_util.h"

namespace {

constexpr size_t kNumbersRoom = 12;  // "xx.xx.xxxxx": longer ones are cut

struct Version {
    int32_t majorNum;
    int32_t minorNum;
    int32_t patchNum;
    uint32_t date;
    uint32_t timestamp;
};

// Three numbers with points between; those from the first fault on stay 0.
void _parse_numbers(const char *text, Version *version) {
    for (int32_t *number : {&version->majorNum, &version->minorNum, &version->patchNum}) {
        const char *end = text;
        *number = cloud_parseInt32(text, &end);
        if (end == text || *end != '.') {
            return;
        }
        text = end + 1;
    }
}

// Contract: both are read at a character that is no digit ("B" and the point), which gives 0: the three
// numbers decide alone.
void _parse_stamps(const char *tail, Version *version) {
    const char *build = strstr(tail, "Build");
    if (build == nullptr) {
        return;
    }
    version->date = static_cast<uint32_t>(cloud_parseInt32(build));
    const char *point = strchr(build, '.');
    if (point != nullptr) {
        version->timestamp = static_cast<uint32_t>(cloud_parseInt32(point));
    }
}

bool _parse_version(const char *text, Version *version) {
    const char *blank = strchr(text, ' ');
    if (blank == nullptr) {
        CLOUD_LOG("soft version format is wrong!\n");
        return false;
    }
    std::array<char, kNumbersRoom> numbers{};
    memcpy(numbers.data(), text, std::min(static_cast<size_t>(blank - text), numbers.size() - 1));
    _parse_numbers(numbers.data(), version);
    _parse_stamps(blank, version);
    return true;
}

}  // namespace

int fwVerCmp(const char *cmpFwVer, const char *curFwVer) {
    if (cmpFwVer == nullptr || curFwVer == nullptr) {
        CLOUD_LOG("cmpFwVer or curFwVer is NULL\n");
        return 0;
    }
    CLOUD_LOG("cmpFwVer is %s, curFwVer is %s\n", cmpFwVer, curFwVer);
    Version cmp{};
    if (!_parse_version(cmpFwVer, &cmp)) {
        return 0;
    }
    CLOUD_LOG("New firmware info: fwVer is %d.%d.%d, fwDate is %ld, fwTimestamp is  %ld\n", cmp.majorNum,
              cmp.minorNum, cmp.patchNum, static_cast<long>(cmp.date), static_cast<long>(cmp.timestamp));
    Version cur{};
    if (!_parse_version(curFwVer, &cur)) {
        return 0;
    }
    CLOUD_LOG("Cur firmware info: fwVer is %d.%d.%d, fwDate is %ld, fwTimestamp is  %ld\n", cur.majorNum,
              cur.minorNum, cur.patchNum, static_cast<long>(cur.date), static_cast<long>(cur.timestamp));
    // Contract: only the first number's outcome is logged.
    if (cmp.majorNum < cur.majorNum) {
        CLOUD_LOG("Compared firmware is older than cur firmware!\n");
        return 0;
    }
    if (cmp.majorNum > cur.majorNum) {
        CLOUD_LOG("Compared firmware is newer than cur firmware!\n");
        return 1;
    }
    if (cmp.minorNum != cur.minorNum) {
        return cmp.minorNum > cur.minorNum ? 1 : 0;
    }
    if (cmp.patchNum != cur.patchNum) {
        return cmp.patchNum > cur.patchNum ? 1 : 0;
    }
    if (cmp.date != cur.date) {
        return cmp.date > cur.date ? 1 : 0;
    }
    return cmp.timestamp > cur.timestamp ? 1 : 0;
}

int getDevFwVer(const char *curFwVer, char *devFwVerNum, int maxDevFwVerNumLen) {
    if (curFwVer == nullptr || devFwVerNum == nullptr) {
        CLOUD_LOG("curFwVer or devFwVerNum is NULL\n");
        return 0;
    }
    if (maxDevFwVerNumLen < 1) {
        CLOUD_LOG("maxDevFwVerNumLen <= 0\n");
        return 0;
    }
    CLOUD_LOG("curFwVer is %s\n", curFwVer);
    const char *blank = strchr(curFwVer, ' ');
    if (blank == nullptr) {
        CLOUD_LOG("soft version format is wrong!\n");
        return 0;
    }
    const auto length = static_cast<size_t>(blank - curFwVer);
    if (length >= static_cast<size_t>(maxDevFwVerNumLen)) {
        CLOUD_LOG("soft version buff length less!\n");
        return 0;
    }
    memcpy(devFwVerNum, curFwVer, length);
    CLOUD_LOG("devFwVerNum is %s\n", devFwVerNum);
    return 1;
}
