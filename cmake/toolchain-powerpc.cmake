# 32-bit big-endian PowerPC, the device: Debian bookworm's cross g++ (g++-powerpc-linux-gnu).
# Debian has no powerpc Boost, SQLite or libmodbus, so the build takes the host's
# arch-independent Boost headers (header-only parts only) and the SQLite and libmodbus that
# scripts/cross.sh builds from Debian's source packages into build-deps/powerpc.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(MB_CROSS_TRIPLET powerpc-linux-gnu)
set(MB_CROSS_EMULATOR qemu-ppc-static)
# The device's time_t is 32 bits unless asked for 64: time mappings must work past 2038.
set(CMAKE_C_FLAGS_INIT "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")
include(${CMAKE_CURRENT_LIST_DIR}/cross-common.cmake)
