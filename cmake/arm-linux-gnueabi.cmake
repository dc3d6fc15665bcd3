# Cross build for the operator panel: 32-bit ARM, soft-float EABI Linux, with
# Debian's g++-arm-linux-gnueabi. Test programs run under qemu-arm, so CTest
# (and GoogleTest discovery) work on an x86 build machine.
#
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabi.cmake
#
# builds the library, the tools and the tests (GoogleTest from its sources).
#
# PLC_SYSROOT: the panel's own root file system (or the part of it holding
# /usr/include, /lib and /usr/lib): the library is then compiled against the
# panel's C library headers and linked against its libraries, so it needs
# nothing newer than the panel has. The C++ headers and libstdc++ come from the
# cross compiler; pair this with -DPLC_STATIC_RUNTIME=ON when the panel's
# libstdc++ is older than the compiler's. Empty: Debian's cross libraries in
# /usr/arm-linux-gnueabi.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(PLC_CROSS_TRIPLE arm-linux-gnueabi)
set(PLC_SYSROOT "" CACHE PATH "The panel's sysroot; empty for Debian's cross libraries")
# Compiler checks run in projects of their own, which see only these variables.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PLC_SYSROOT)

set(CMAKE_C_COMPILER ${PLC_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${PLC_CROSS_TRIPLE}-g++)

if(PLC_SYSROOT)
  set(CMAKE_SYSROOT ${PLC_SYSROOT})
  set(PLC_TARGET_ROOT ${PLC_SYSROOT})
else()
  set(PLC_TARGET_ROOT /usr/${PLC_CROSS_TRIPLE})
endif()

# Headers and libraries come from the target tree only; build tools from the host.
set(CMAKE_FIND_ROOT_PATH ${PLC_TARGET_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -L lets qemu find the target's dynamic loader and shared libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${PLC_TARGET_ROOT})

# GCC's notes on the parameter passing it changed in 7.1 concern linking C++
# objects of older compilers; everything here is built with one compiler, and
# the library's interface is C.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
