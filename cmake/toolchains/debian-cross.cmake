# SPDX-License-Identifier: MIT
# Shared part of the ARM toolchain files (armhf.cmake, arm64.cmake): Debian's
# cross compilers (crossbuild-essential-<arch>) and a sysroot unpacked from
# the target architecture's Debian packages by scripts/arm-sysroot. The
# caller sets MERIVAK_CROSS_ARCH, MERIVAK_CROSS_TRIPLET, MERIVAK_CROSS_QEMU
# and CMAKE_SYSTEM_PROCESSOR before including this file.

set(CMAKE_SYSTEM_NAME Linux)

# The sysroot: -DMERIVAK_SYSROOT=..., else $MERIVAK_ARM_CACHE/sysroot-<arch>,
# else the default cache folder of scripts/arm-sysroot.
if(NOT MERIVAK_SYSROOT)
  if(DEFINED ENV{MERIVAK_SYSROOT})
    set(MERIVAK_SYSROOT "$ENV{MERIVAK_SYSROOT}")
  elseif(DEFINED ENV{MERIVAK_ARM_CACHE})
    set(MERIVAK_SYSROOT "$ENV{MERIVAK_ARM_CACHE}/sysroot-${MERIVAK_CROSS_ARCH}")
  else()
    set(MERIVAK_SYSROOT "/var/cache/merivak-arm/sysroot-${MERIVAK_CROSS_ARCH}")
  endif()
endif()
set(MERIVAK_SYSROOT "${MERIVAK_SYSROOT}" CACHE PATH "Sysroot of the ${MERIVAK_CROSS_ARCH} build (scripts/arm-sysroot)")
if(NOT EXISTS "${MERIVAK_SYSROOT}/usr/include/${MERIVAK_CROSS_TRIPLET}")
  message(FATAL_ERROR "No ${MERIVAK_CROSS_ARCH} sysroot in ${MERIVAK_SYSROOT}: run scripts/arm-sysroot ${MERIVAK_CROSS_ARCH}")
endif()
# try_compile projects read this file again and need the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MERIVAK_SYSROOT)

set(CMAKE_C_COMPILER ${MERIVAK_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${MERIVAK_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${MERIVAK_CROSS_TRIPLET})
# GCC notes every function whose argument passing differs from GCC releases
# before 7.1/9.1 on ARM; everything here, the sysroot's C++ libraries
# included, comes from GCC 12, so those notes only bury real diagnostics.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Debian's cross compiler links its own C library and libstdc++ from
# /usr/<triplet>/lib (the *-cross packages, the same releases) ahead of the
# sysroot, exactly as in a multiarch set-up; every other header and library
# comes from the sysroot, and at run time everything does.
set(CMAKE_SYSROOT "${MERIVAK_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${MERIVAK_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Libraries install into Debian's multiarch folder of the target, as
# GNUInstallDirs does for native builds with the prefix /usr (it leaves that
# out when cross-compiling).
# A value given on the command line (debhelper gives the same one) is kept:
# set(CACHE PATH) would turn it into an absolute path in the build folder.
if(NOT DEFINED CACHE{CMAKE_INSTALL_LIBDIR})
  set(CMAKE_INSTALL_LIBDIR "lib/${MERIVAK_CROSS_TRIPLET}" CACHE PATH "Object code libraries (lib/${MERIVAK_CROSS_TRIPLET})")
endif()

# ctest (and gtest_discover_tests) run the target's programs in user-mode
# QEMU, with the sysroot as the root for the emulated dynamic loader.
find_program(MERIVAK_QEMU_USER ${MERIVAK_CROSS_QEMU})
if(MERIVAK_QEMU_USER)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${MERIVAK_QEMU_USER};-L;${MERIVAK_SYSROOT}")
endif()
