# 64-bit, big-endian.
set(ZEB_TRIPLET s390x-linux-gnu)
set(ZEB_PROCESSOR s390x)
set(ZEB_RUNNER qemu-s390x -L /usr/${ZEB_TRIPLET})
include(${CMAKE_CURRENT_LIST_DIR}/foreign.cmake)
