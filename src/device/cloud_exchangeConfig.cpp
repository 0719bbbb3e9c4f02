#include "cloud_exchangeConfig.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "cloud_owner.h"
#include "cloud_path.h"
#include "cloud_replaceFile.h"
#include "cloud_util.h"

namespace {

constexpr size_t kDocumentRoom = 512;  // the readers' bound, with the terminator

// The document as it stands; null (logged) when there is none that could be extended.
JsonTree _read_document() {
    const UniqueFd file = cloud_openOwn(kStatusPath, O_RDONLY);
    if (!file.ok()) {
        CLOUD_LOG("Error: open %s for read failed", kStatusPath);
        return nullptr;
    }
    std::array<char, kDocumentRoom> text{};
    if (read(file.get(), text.data(), text.size() - 1) < 0) {
        CLOUD_LOG("Error: read %s failed", kStatusPath);
        return nullptr;
    }
    JsonTree document(cJSON_Parse(text.data()));
    if (!cJSON_IsObject(document.get())) {
        CLOUD_LOG("Error: parse json failed");
        return nullptr;
    }
    return document;
}

// Contract: removed and appended, so that it becomes the last member.
bool _replace_number(cJSON *document, const char *name, double value) {
    cJSON_DeleteItemFromObjectCaseSensitive(document, name);
    return cJSON_AddNumberToObject(document, name, value) != nullptr;
}

// @param complete  false when a member could not be added: then the old document stays.
int _write_document(const cJSON *document, bool complete) {
    const JsonText text(complete ? cJSON_Print(document) : nullptr);
    if (text == nullptr) {
        CLOUD_LOG("Print cJSON failed.\n");
        return 0;
    }
    // Contract: both messages show the document where a path is expected.
    switch (cloud_replaceFile(kStatusPath, text.get())) {
        case kReplaceOpenFailed:
            CLOUD_LOG("Error: open %s for write failed", text.get());
            return 0;
        case kReplaceWriteFailed:
            CLOUD_LOG("Error: write %s failed", text.get());
            return 0;
        case kReplaced:
            break;
    }
    return 1;
}

}  // namespace

int cloud_setFirmwareDownloadStatus(int status, int progress) {
    const JsonTree document = _read_document();
    if (document == nullptr) {
        return 0;
    }
    const bool complete = _replace_number(document.get(), "fw_status", status) &&
                          _replace_number(document.get(), "dwProgress", progress);
    if (_write_document(document.get(), complete) == 0) {
        return 0;
    }
    CLOUD_LOG("downloading: %d", progress);
    return 1;
}

int cloud_setFirmwareUpgradeStart(unsigned int value) {
    const JsonTree document = _read_document();
    if (document == nullptr) {
        return 0;
    }
    return _write_document(document.get(), _replace_number(document.get(), "cloud_start", value));
}
