# With MB_FUZZ every library is instrumented for libFuzzer and built with AddressSanitizer
# and UndefinedBehaviorSanitizer; only the fuzz targets link the fuzzer itself. Clang only.
if(MB_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "MB_FUZZ needs clang (CXX=clang++ CC=clang), not ${CMAKE_CXX_COMPILER_ID}")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                        -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
endif()
