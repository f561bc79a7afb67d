# 32-bit, little-endian; this host's processor runs it.
set(ZEB_TRIPLET i686-linux-gnu)
set(ZEB_PROCESSOR i686)
set(ZEB_RUNNER /usr/${ZEB_TRIPLET}/lib/ld-linux.so.2 --library-path /usr/${ZEB_TRIPLET}/lib)
include(${CMAKE_CURRENT_LIST_DIR}/foreign.cmake)
