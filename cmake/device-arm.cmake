# ARMv7, hard float. Its compiler chooses the compact Thumb instructions by itself.
set(DEVICE_TRIPLET arm-linux-gnueabihf)
set(DEVICE_LOADER ld-musl-armhf.so.1)
set(DEVICE_EMULATOR qemu-arm)
set(DEVICE_BYTE_ORDER little)
include(${CMAKE_CURRENT_LIST_DIR}/device-common.cmake)
