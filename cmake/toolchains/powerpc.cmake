# 32-bit, big-endian.
set(ZEB_TRIPLET powerpc-linux-gnu)
set(ZEB_PROCESSOR ppc)
set(ZEB_RUNNER qemu-ppc -L /usr/${ZEB_TRIPLET})
include(${CMAKE_CURRENT_LIST_DIR}/foreign.cmake)
