# 64-bit, little-endian, weakly ordered memory.
set(ZEB_TRIPLET riscv64-linux-gnu)
set(ZEB_PROCESSOR riscv64)
set(ZEB_RUNNER qemu-riscv64 -L /usr/${ZEB_TRIPLET})
include(${CMAKE_CURRENT_LIST_DIR}/foreign.cmake)
