# 64-bit, little-endian, weakly ordered memory.
set(ZEB_TRIPLET aarch64-linux-gnu)
set(ZEB_PROCESSOR aarch64)
set(ZEB_RUNNER qemu-aarch64 -L /usr/${ZEB_TRIPLET})
include(${CMAKE_CURRENT_LIST_DIR}/foreign.cmake)
