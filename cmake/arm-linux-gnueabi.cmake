# Cross build for the operator panel: 32-bit ARM, soft-float EABI Linux, with
# Debian's g++-arm-linux-gnueabi. Test programs run under qemu-arm, so CTest
# (and GoogleTest discovery) work on an x86 build machine.
#
#   cmake -S . -B build-arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabi.cmake \
#         -DPLC_GTEST_FROM_SOURCE=ON -DPLC_BUILD_TOOLS=OFF -DPLC_BUILD_BENCH=OFF

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(PLC_CROSS_TRIPLE arm-linux-gnueabi)
set(PLC_CROSS_SYSROOT /usr/${PLC_CROSS_TRIPLE})

set(CMAKE_C_COMPILER ${PLC_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${PLC_CROSS_TRIPLE}-g++)

# Headers and libraries come from the target tree only; build tools from the host.
set(CMAKE_FIND_ROOT_PATH ${PLC_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -L lets qemu find the target's dynamic loader and shared libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${PLC_CROSS_SYSROOT})
