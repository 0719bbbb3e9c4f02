# The device: MIPS32 release 2, big-endian, musl. The sysroot comes from script/device.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(DEVICE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/device-sysroot)
set(DEVICE_TOOLS mips-linux-gnu-)
get_filename_component(DEVICE_SYSROOT ${DEVICE_SYSROOT} ABSOLUTE)
include(${CMAKE_CURRENT_LIST_DIR}/device-common.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips -L ${DEVICE_SYSROOT})
