# SPDX-License-Identifier: MIT
# Cross-build for the board: 32-bit ARM, hard-float (Debian armhf).
#   cmake -S . -B build-arm-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake
# scripts/cross armhf prepares the compiler and the sysroot and does this.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(MERIVAK_CROSS_ARCH armhf)
set(MERIVAK_CROSS_TRIPLET arm-linux-gnueabihf)
set(MERIVAK_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
