# Builds for the emulated device: clang and lld against the private arm64 sysroot that
# emulator/fetch-arm64 makes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

# Kept in the cache, so that a later re-configuration without the variable finds the same sysroot.
if(NOT TARNIX_SYSROOT)
    if(DEFINED ENV{TARNIX_EMULATOR_CACHE})
        set(TARNIX_SYSROOT $ENV{TARNIX_EMULATOR_CACHE}/sysroot)
    else()
        get_filename_component(TARNIX_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/emulator/sysroot ABSOLUTE)
    endif()
endif()
set(TARNIX_SYSROOT ${TARNIX_SYSROOT} CACHE PATH "The arm64 sysroot")
# CMake's compiler checks read this file again in projects of their own.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TARNIX_SYSROOT)
if(NOT EXISTS ${TARNIX_SYSROOT}/usr/include/zlib.h)
    message(FATAL_ERROR "No arm64 sysroot in ${TARNIX_SYSROOT}: run emulator/fetch-arm64 first")
endif()

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET aarch64-linux-gnu)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu)
set(CMAKE_SYSROOT ${TARNIX_SYSROOT})
foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT -fuse-ld=lld)
endforeach()

# Headers, libraries and packages come from the sysroot alone, programs from this machine alone.
set(CMAKE_FIND_ROOT_PATH ${TARNIX_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
