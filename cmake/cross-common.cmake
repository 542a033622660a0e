# Shared part of the cross toolchain files; expects CMAKE_SYSTEM_PROCESSOR, MB_CROSS_TRIPLET
# and MB_CROSS_EMULATOR. The dependencies' prefix is build-deps/<processor> unless the
# environment names another in MB_CROSS_DEPS.
find_program(MB_CROSS_CXX ${MB_CROSS_TRIPLET}-g++)
if(NOT MB_CROSS_CXX)
    message(FATAL_ERROR "No ${MB_CROSS_TRIPLET}-g++: install g++-${MB_CROSS_TRIPLET} "
                        "(scripts/cross.sh ${CMAKE_SYSTEM_PROCESSOR} does)")
endif()
set(CMAKE_C_COMPILER ${MB_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${MB_CROSS_TRIPLET}-g++)

if(DEFINED ENV{MB_CROSS_DEPS})
    set(MB_CROSS_DEPS "$ENV{MB_CROSS_DEPS}")
else()
    get_filename_component(MB_CROSS_DEPS
        "${CMAKE_CURRENT_LIST_DIR}/../build-deps/${CMAKE_SYSTEM_PROCESSOR}" ABSOLUTE)
endif()
if(NOT EXISTS "${MB_CROSS_DEPS}/lib/pkgconfig/sqlite3.pc")
    message(FATAL_ERROR "No SQLite for ${CMAKE_SYSTEM_PROCESSOR} in ${MB_CROSS_DEPS}: "
                        "run scripts/cross.sh ${CMAKE_SYSTEM_PROCESSOR}")
endif()

set(CMAKE_FIND_ROOT_PATH /usr/${MB_CROSS_TRIPLET} "${MB_CROSS_DEPS}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config sees only the target's own .pc files, never the host's.
set(ENV{PKG_CONFIG_LIBDIR} "${MB_CROSS_DEPS}/lib/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# OpenSSL is the one scripts/cross.sh builds into the same prefix; the programs link its
# shared libraries, as they will the device's.
set(OPENSSL_ROOT_DIR "${MB_CROSS_DEPS}")

# Boost and nlohmann-json are header-only here and their headers do not depend on the
# architecture; the cross g++ searches /usr/include after its own libc headers.
set(Boost_INCLUDE_DIR /usr/include CACHE PATH "" FORCE)
set(Boost_NO_BOOST_CMAKE ON)
set(nlohmann_json_DIR /usr/share/cmake/nlohmann_json CACHE PATH "" FORCE)

# ctest runs every test program through qemu-user (no binfmt_misc is needed).
set(CMAKE_CROSSCOMPILING_EMULATOR ${MB_CROSS_EMULATOR} -L /usr/${MB_CROSS_TRIPLET})
