# The device's libraries and settings for this host's processor: for figures at native speed.
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(DEVICE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/device-native-sysroot)
set(DEVICE_TOOLS "")
get_filename_component(DEVICE_SYSROOT ${DEVICE_SYSROOT} ABSOLUTE)
# No page boundaries between code and constants, as on MIPS.
set(DEVICE_LINK_FLAGS -Wl,-z,noseparate-code)
include(${CMAKE_CURRENT_LIST_DIR}/device-common.cmake)
