# SPDX-License-Identifier: MIT
# Install rules beyond the programs' own, and the Debian packages:
#   merivak           the tool (installed by app/), its man page merivak(1)
#                     and the default log folder /var/lib/vosta/log
#   merivak-boardsim  the board simulator: launcher, preload library, README
# Packages are built with `cpack` in a build folder configured with
# -DCMAKE_INSTALL_PREFIX=/usr (scripts/arm-package does this for amd64 and
# armhf). Their library dependencies come from dpkg-shlibdeps; for a
# cross-build it reads the sysroot's package database (scripts/arm-sysroot).

# The man page, compressed as Debian installs man pages.
find_program(MERIVAK_GZIP gzip)
set(_merivak_man_source ${PROJECT_SOURCE_DIR}/doc/merivak.1)
if(MERIVAK_GZIP)
  set(_merivak_man ${PROJECT_BINARY_DIR}/doc/merivak.1.gz)
  add_custom_command(OUTPUT ${_merivak_man}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/doc
    COMMAND ${MERIVAK_GZIP} -9 -n -c ${_merivak_man_source} > ${_merivak_man}
    DEPENDS ${_merivak_man_source}
    COMMENT "Compressing the man page merivak(1)"
    VERBATIM)
  add_custom_target(merivak_man ALL DEPENDS ${_merivak_man})
else()
  set(_merivak_man ${_merivak_man_source})
endif()
install(FILES ${_merivak_man} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# The tool logs to /var/lib/vosta/log unless told otherwise and does not
# create the folder itself: the package provides it. The path is the tool's
# fixed default, whatever the installation prefix.
install(DIRECTORY DESTINATION /var/lib/vosta/log)

# The board simulator, in a package of its own: the launcher looks for its
# preload library in the installed library folder.
if(TARGET boardsim AND TARGET boardsim_preload)
  install(TARGETS boardsim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT boardsim)
  install(TARGETS boardsim_preload LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT boardsim)
  install(FILES ${PROJECT_SOURCE_DIR}/boardsim/README.md
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/merivak-boardsim COMPONENT boardsim)
endif()

# ---- Debian packages ----
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME merivak)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "merivak maintainers <merivak@localhost>" CACHE STRING "Maintainer of the Debian packages")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

# Installs without a component (the tool from app/, the man page, the log
# folder) form the package "merivak"; the component "boardsim" the package
# "merivak-boardsim".
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_NAME merivak)
set(CPACK_COMPONENT_UNSPECIFIED_DESCRIPTION
  "Service tool for the DSP's serial flash\n merivak reads, reprograms and verifies the SPI NOR flash from which the\n board's DSP boots, through spidev and sysfs GPIO: merivak read|write|check.")
set(CPACK_DEBIAN_BOARDSIM_PACKAGE_NAME merivak-boardsim)
set(CPACK_DEBIAN_BOARDSIM_PACKAGE_SUGGESTS merivak)
set(CPACK_COMPONENT_BOARDSIM_DESCRIPTION
  "Board simulator for the merivak flash tool\n boardsim runs an unmodified program against models of the board's SPI NOR\n flash (spidev), sysfs GPIO and alarm-sound device, with traces and faults.")

if(CMAKE_CROSSCOMPILING)
  # The target's Debian architecture, and dpkg-shlibdeps reading the
  # sysroot's package database instead of the host's.
  if(MERIVAK_CROSS_ARCH)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${MERIVAK_CROSS_ARCH})
  endif()
  if(MERIVAK_SYSROOT)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
      ${MERIVAK_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}
      ${MERIVAK_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
    set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/MerivakCPackCross.cmake)
    file(CONFIGURE OUTPUT ${CPACK_PROJECT_CONFIG_FILE} CONTENT [[
# Read by cpack: dpkg-shlibdeps looks the target's libraries up in the
# sysroot's package database, for the target's architecture.
set(ENV{DPKG_ADMINDIR} "@MERIVAK_SYSROOT@/var/lib/dpkg")
set(ENV{DEB_HOST_ARCH} "@MERIVAK_CROSS_ARCH@")
]] @ONLY)
  endif()
endif()

include(CPack)
