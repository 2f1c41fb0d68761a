# SPDX-License-Identifier: MIT
# Qt Core (6 by default, 5.15 with -DMERIVAK_QT=5) and log4cplus 2.0, from
# the distribution's packages. Code links the versionless Qt::Core target.
if(MERIVAK_QT STREQUAL "6")
  find_package(Qt6 REQUIRED COMPONENTS Core)
elseif(MERIVAK_QT STREQUAL "5")
  find_package(Qt5 5.15 REQUIRED COMPONENTS Core)
else()
  message(FATAL_ERROR "MERIVAK_QT must be 6 or 5, not '${MERIVAK_QT}'")
endif()
if(NOT TARGET Qt::Core)
  message(FATAL_ERROR "Qt did not provide the versionless Qt::Core target")
endif()

find_package(log4cplus 2.0 REQUIRED)
find_package(Threads REQUIRED)

if(MERIVAK_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()
if(MERIVAK_BUILD_BENCHMARKS)
  find_package(benchmark REQUIRED)
endif()
