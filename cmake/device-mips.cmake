# The device: MIPS32 release 2, big-endian, musl. The sysroot comes from script/device.
set(CMAKE_SYSTEM_PROCESSOR mips)
set(DEVICE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/device-sysroot)
set(DEVICE_TOOLS mips-linux-gnu-)
get_filename_component(DEVICE_SYSROOT ${DEVICE_SYSROOT} ABSOLUTE)
# 16-bit instructions (MIPS16e) take a third less room; for a processor that lacks them: OFF.
option(DEVICE_MIPS16 "Compile to 16-bit instructions" ON)
if(DEVICE_MIPS16)
  set(DEVICE_FLAGS -mips16)
  set(DEVICE_LINK_FLAGS -Wl,-T,${CMAKE_CURRENT_LIST_DIR}/mips16_stubs.ld)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/device-common.cmake)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips -L ${DEVICE_SYSROOT})
