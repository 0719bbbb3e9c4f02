# The device's libraries and settings for this host's processor (x86-64): for figures at native speed.
set(DEVICE_TRIPLET x86_64-linux-gnu)
set(DEVICE_LOADER ld-musl-x86_64.so.1)
set(DEVICE_BYTE_ORDER little)
# No page boundaries between code and constants, as on MIPS.
set(DEVICE_LINK_FLAGS -Wl,-z,noseparate-code)
include(${CMAKE_CURRENT_LIST_DIR}/device-common.cmake)
