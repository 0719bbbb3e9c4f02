// All that the broker may say: to the main connection, to the thread that polls for callbacks, to the thread
// that serves a registered program. First byte: which of them. Then the messages, each a byte of type and a
// body up to a NUL; the first one is the greeting.
#include <kxcc.h>

#include <cstdlib>
#include <cstring>

#include "cloud_api.h"
#include "cloud_callback.h"
#include "cloud_owner.h"
#include "cloud_register.h"
#include "fuzz.h"
#include "wire.h"

namespace {

size_t l_seen = 0;  // of the texts that arrived, so that each of their characters is looked at

void _take(int32_t /*id*/, const char *text) {
    l_seen += strlen(text);
}

int32_t _handle(const char *request, char **response) {
    *response = strdup(request);
    return 0;
}

void _greet(kxcc_hello_info **info) {
    *info = static_cast<kxcc_hello_info *>(calloc(1, sizeof **info));
}

void _take_greeting(const kxcc_hello_result *result) {
    l_seen += strlen(result->firmwareDownloadPage) + strlen(result->info);
}

void _call() {
    kxcc_get_link_status();
    kxcc_notify_cloud_brd(3);
    for (const int32_t timeout : {5, -1}) {
        char *text = nullptr;
        const int32_t result = kxcc_send_request_sync("{}", timeout, 1, &text);
        const HeapText answer(text);
        FUZZ_EXPECT((result == KXCC_OK) == (answer != nullptr));
    }
    cloud_api_destroy();
}

// Either thread's function, in this thread: it ends when the broker has hung up and time has passed.
void _run_thread(void *(*thread)(void *)) {
    CallbackSlot slot{1, 500, 0, 0, _take};  // ten rounds
    CloudApi api{};
    api.cb = &slot;
    api.cbMaxNum = 1;
    api.callbackStop = 1;
    api.handler = _handle;
    api.hooks = {_greet, _take_greeting};
    cloudApi = &api;
    thread(&api);
    cloudApi = nullptr;
}

}  // namespace

FUZZ_TARGET(broker_reply) {
    const unsigned char role = fuzz::cut_byte(input);
    std::string bytes;
    while (!input.empty()) {
        const unsigned char type = fuzz::cut_byte(input);
        const std::string body = fuzz::cut(input);
        bytes += emulator::encode_frame(emulator::kMagic, type, body.size(), body);
    }
    fuzz::set_broker(bytes);
    if (role % 3 == 0) {
        _call();
    } else {
        _run_thread(role % 3 == 1 ? callback_thread : register_thread);
    }
}
