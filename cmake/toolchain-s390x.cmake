# 64-bit big-endian IBM Z: a second opinion on byte order with 64-bit long and size_t.
# Same dependencies as the powerpc build, built by scripts/cross.sh into build-deps/s390x.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(MB_CROSS_TRIPLET s390x-linux-gnu)
set(MB_CROSS_EMULATOR qemu-s390x-static)
include(${CMAKE_CURRENT_LIST_DIR}/cross-common.cmake)
