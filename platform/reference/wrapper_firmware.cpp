// The store's two firmware commands, on the image that the download left.
//
// The emulated flash is a folder: "firmware.bin" is the image that the device runs, and a file "restart",
// which names its version, asks whoever plays the device to start it anew.

#pragma GCC visibility push(default)
#include "wrapper.h"
#pragma GCC visibility pop

#include <cstring>

#include "fw_image.h"
#include "state_file.h"

namespace {

constexpr char kFlashImageName[] = "firmware.bin";
constexpr char kRestartName[] = "restart";
constexpr int kRefused = -1;

bool l_transactionOpen = false;  // one thread at a time comes here
int32_t l_reply = 0;             // what wrpDoCmdWithoutID lends to its caller

[[nodiscard]] bool _ask_for_restart(const ImageHeader &header) {
    PathText path;
    PendingFile file;
    if (!state_flashFile(kRestartName, &path) || !file.open(path, PendingFile::Wait::kUntilFree)) {
        return false;
    }
    const auto *const version = reinterpret_cast<const unsigned char *>(header.version);
    constexpr unsigned char kNewline[] = {'\n'};
    return state_writeAll(file.fd(), {version, strnlen(header.version, sizeof(header.version))}) &&
           state_writeAll(file.fd(), kNewline) && file.commit();
}

// Checks the very bytes that it copies: the file may have changed since the check command.
[[nodiscard]] ImageError _install() {
    const UniqueFd image(image_open(WRP_IMAGE_FILE));
    if (!image.ok()) {
        return kImageUnreadable;
    }
    PathText path;
    PendingFile flash;
    if (!state_flashFile(kFlashImageName, &path) || !flash.open(path, PendingFile::Wait::kNever)) {
        return kImageNotInstalled;
    }
    ImageHeader header;
    const ImageError error = image_check(image.get(), flash.fd(), &header);
    if (error != kImageGood) {
        return error;
    }
    return flash.commit() && _ask_for_restart(header) ? kImageGood : kImageNotInstalled;
}

}  // namespace

int wrpOpDo(unsigned command, void *in, unsigned inLength, void *out, unsigned outLength, int direction) {
    if (command != WRP_VERIFY || in != nullptr || inLength != 0 || out == nullptr ||
        outLength != WRP_VERIFY_REPLY_BYTES || direction != WRP_READ) {
        return kRefused;
    }
    const UniqueFd image(image_open(WRP_IMAGE_FILE));
    ImageHeader header;
    const int32_t error = image.ok() ? image_check(image.get(), -1, &header) : kImageUnreadable;
    memset(out, 0, outLength);
    memcpy(out, &error, sizeof(error));
    return 0;
}

int wrpGetTransID(int /*argument*/) {
    if (l_transactionOpen) {
        return kRefused;
    }
    l_transactionOpen = true;
    return 0;
}

int wrpDoCmdWithoutID(unsigned command, void *in, unsigned inLength, void **reply, unsigned *replyLength) {
    uint32_t argument = 0;
    if (!l_transactionOpen || command != WRP_INSTALL || in == nullptr || inLength != sizeof(argument) ||
        reply == nullptr || replyLength == nullptr) {
        return kRefused;
    }
    memcpy(&argument, in, sizeof(argument));
    if (argument != 0) {
        return kRefused;
    }
    l_reply = _install();
    *reply = &l_reply;
    *replyLength = sizeof(l_reply);
    return 0;
}

int wrpWithdrawTransID(void) {
    if (!l_transactionOpen) {
        return kRefused;
    }
    l_transactionOpen = false;
    return 0;
}
