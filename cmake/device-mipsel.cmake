# MIPS32 release 2, little-endian, hard float, musl.
set(DEVICE_TRIPLET mipsel-linux-gnu)
set(DEVICE_LOADER ld-musl-mipsel.so.1)
set(DEVICE_EMULATOR qemu-mipsel)
set(DEVICE_BYTE_ORDER little)
# As for the big-endian one.
set(DEVICE_MACHINE -mplt -minterlink-mips16)
set(DEVICE_COMPACT -mips16)
set(DEVICE_COMPACT_LINK -Wl,-T,${CMAKE_CURRENT_LIST_DIR}/mips16_stubs.ld)
include(${CMAKE_CURRENT_LIST_DIR}/device-common.cmake)
