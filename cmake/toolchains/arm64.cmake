# SPDX-License-Identifier: MIT
# Cross-build for 64-bit ARM (Debian arm64).
#   cmake -S . -B build-arm-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm64.cmake
# scripts/cross arm64 prepares the compiler and the sysroot and does this.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(MERIVAK_CROSS_ARCH arm64)
set(MERIVAK_CROSS_TRIPLET aarch64-linux-gnu)
set(MERIVAK_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
