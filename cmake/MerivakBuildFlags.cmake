# SPDX-License-Identifier: MIT
# Debian's hardening flags and project-relative source paths for every build,
# not only the one dpkg-buildpackage runs.
#
# Hardening: when the compiler flags were not given from outside (CFLAGS,
# CXXFLAGS, LDFLAGS in the environment, as dpkg-buildpackage and debhelper
# pass them), the flags of `dpkg-buildflags` with hardening=+all are added:
# _FORTIFY_SOURCE, the stack protector, RELRO and BIND_NOW. Optimisation and
# debug levels stay with CMAKE_BUILD_TYPE, and -ffile-prefix-map comes from
# below. Sanitizer builds are left alone (their runtimes intercept the same
# C library calls that fortification replaces); builds without optimisation
# leave out _FORTIFY_SOURCE, which needs it and warns (an error with
# -Werror) otherwise. -DMERIVAK_DPKG_BUILDFLAGS=OFF turns this off.
#
# Source paths: __FILE__ (the %F of the log records) and the debug
# information name files relative to the project (src/.../MerivakRead.cpp),
# so that two builds of the same commit in different folders are identical.
option(MERIVAK_DPKG_BUILDFLAGS "Add dpkg-buildflags' hardening flags when CFLAGS/CXXFLAGS/LDFLAGS are not set" ON)

# GCC applies the last matching -ffile-prefix-map: source files become
# src/..., files generated in the build folder (which may lie inside the
# source folder) and the compilers' working folders ./... . ccache's
# base_dir (CCACHE_BASEDIR) turns the paths relative before these maps see
# them: scripts/package builds without it.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
                    -ffile-prefix-map=${PROJECT_BINARY_DIR}=.)

find_program(MERIVAK_DPKG_BUILDFLAGS_PROGRAM dpkg-buildflags)
mark_as_advanced(MERIVAK_DPKG_BUILDFLAGS_PROGRAM)

set(_merivak_flags_given FALSE)
foreach(variable CFLAGS CXXFLAGS CPPFLAGS LDFLAGS)
  if(DEFINED ENV{${variable}})
    set(_merivak_flags_given TRUE)
  endif()
endforeach()

if(MERIVAK_DPKG_BUILDFLAGS AND MERIVAK_DPKG_BUILDFLAGS_PROGRAM AND NOT _merivak_flags_given
   AND MERIVAK_SANITIZE STREQUAL "")
  # merivak_dpkg_buildflags(FLAGS OUT): dpkg-buildflags --get FLAGS for the
  # target's architecture, as a list.
  function(merivak_dpkg_buildflags flags out)
    set(environment DEB_BUILD_MAINT_OPTIONS=hardening=+all)
    if(MERIVAK_CROSS_ARCH)
      list(APPEND environment DEB_HOST_ARCH=${MERIVAK_CROSS_ARCH})
    endif()
    execute_process(
      COMMAND ${CMAKE_COMMAND} -E env ${environment} ${MERIVAK_DPKG_BUILDFLAGS_PROGRAM} --get ${flags}
      OUTPUT_VARIABLE value OUTPUT_STRIP_TRAILING_WHITESPACE
      RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
      message(FATAL_ERROR "dpkg-buildflags --get ${flags} failed (${status})")
    endif()
    separate_arguments(value UNIX_COMMAND "${value}")
    list(FILTER value EXCLUDE REGEX "^-(O.*|g.*|ffile-prefix-map=.*|fdebug-prefix-map=.*)$")
    set(${out} ${value} PARENT_SCOPE)
  endfunction()

  merivak_dpkg_buildflags(CPPFLAGS _merivak_cppflags)
  merivak_dpkg_buildflags(CFLAGS _merivak_cflags)
  merivak_dpkg_buildflags(CXXFLAGS _merivak_cxxflags)
  merivak_dpkg_buildflags(LDFLAGS _merivak_ldflags)
  if(CMAKE_BUILD_TYPE STREQUAL "Debug")
    list(FILTER _merivak_cppflags EXCLUDE REGEX "^-D_FORTIFY_SOURCE")
  endif()
  foreach(flag IN LISTS _merivak_cppflags)
    add_compile_options("$<$<COMPILE_LANGUAGE:C,CXX>:${flag}>")
  endforeach()
  foreach(flag IN LISTS _merivak_cflags)
    add_compile_options("$<$<COMPILE_LANGUAGE:C>:${flag}>")
  endforeach()
  foreach(flag IN LISTS _merivak_cxxflags)
    add_compile_options("$<$<COMPILE_LANGUAGE:CXX>:${flag}>")
  endforeach()
  add_link_options(${_merivak_ldflags})
  message(STATUS "Hardening flags from dpkg-buildflags: ${_merivak_cppflags} ${_merivak_cxxflags} ${_merivak_ldflags}")
endif()
