# The device: MIPS32 release 2, big-endian, hard float, musl.
set(DEVICE_TRIPLET mips-linux-gnu)
set(DEVICE_LOADER ld-musl-mips.so.1)
set(DEVICE_EMULATOR qemu-mips)
set(DEVICE_BYTE_ORDER big)
# Calls within the program go straight to their target, those into libraries by a stub.
set(DEVICE_MACHINE -mplt -minterlink-mips16)
# 16-bit instructions (MIPS16e) take a third less room. Ciphers keep the faster ones.
set(DEVICE_COMPACT -mips16)
set(DEVICE_COMPACT_LINK -Wl,-T,${CMAKE_CURRENT_LIST_DIR}/mips16_stubs.ld)
include(${CMAKE_CURRENT_LIST_DIR}/device-common.cmake)
