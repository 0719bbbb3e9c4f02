// The broker's state, and one request to the cloud, from C++.
//
//     synchronous '{"method":"myTestConnection"}'
#include <kxcc.h>

#include <cstdlib>
#include <iostream>
#include <memory>

namespace {

constexpr int32_t kTimeoutMs = 5000;
constexpr int32_t kFlag = 1;

struct Free {
    void operator()(char *text) const { std::free(text); }
};
using Answer = std::unique_ptr<char, Free>;

}  // namespace

int main(int argc, char **argv) {
    if (const int32_t link = kxcc_get_link_status(); link != KXCC_LINK_UP) {
        std::cerr << "no link to the cloud: " << link << '\n';
        return EXIT_FAILURE;
    }
    char *text = nullptr;
    const int32_t result = kxcc_send_request_sync(argc > 1 ? argv[1] : R"({"method":"myTestConnection"})",
                                                  kTimeoutMs, kFlag, &text);
    const Answer answer(text);
    if (result != KXCC_OK) {
        std::cerr << "no answer: " << result << '\n';
        return EXIT_FAILURE;
    }
    std::cout << answer.get() << '\n';
    return EXIT_SUCCESS;
}
