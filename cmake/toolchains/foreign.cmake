# Shared by the toolchains of other hosts: a Debian cross compiler, and the command that runs its
# programs on this host. The including file sets ZEB_TRIPLET, ZEB_PROCESSOR and ZEB_RUNNER.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${ZEB_PROCESSOR})
set(CMAKE_C_COMPILER ${ZEB_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ZEB_TRIPLET}-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR ${ZEB_RUNNER})
# Libraries are those of the other host or under CMAKE_PREFIX_PATH; packages that consist of headers
# may be those of this host.
set(CMAKE_FIND_ROOT_PATH /usr/${ZEB_TRIPLET} ${CMAKE_PREFIX_PATH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CMAKE_PREFIX_PATH)
