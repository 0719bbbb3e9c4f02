# RISC-V, 64 bits, with compressed instructions and hard float (RV64GC).
set(DEVICE_TRIPLET riscv64-linux-gnu)
set(DEVICE_LOADER ld-musl-riscv64.so.1)
set(DEVICE_EMULATOR qemu-riscv64)
set(DEVICE_BYTE_ORDER little)
include(${CMAKE_CURRENT_LIST_DIR}/device-common.cmake)
