// main() of tests that run inside an emulated device, each process in its own.
#include <gmock/gmock.h>

#include <string_view>

#include "namespace.h"

int main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::string_view(argv[i]).starts_with("--gtest_list_tests")) {
            testing::InitGoogleMock(&argc, argv);
            return RUN_ALL_TESTS();
        }
    }
    emulator::enter_device();
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
