# ARMv8, 64 bits.
set(DEVICE_TRIPLET aarch64-linux-gnu)
set(DEVICE_LOADER ld-musl-aarch64.so.1)
set(DEVICE_EMULATOR qemu-aarch64)
set(DEVICE_BYTE_ORDER little)
# GCC's own choice between two kinds of atomics asks glibc which processor it runs on.
set(DEVICE_MACHINE -mno-outline-atomics)
include(${CMAKE_CURRENT_LIST_DIR}/device-common.cmake)
