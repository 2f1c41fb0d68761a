# SPDX-License-Identifier: MIT
# Warnings that catch real bugs, all treated as errors, for the project's own
# targets. Applied per target with merivak_warnings(<target>) so that
# third-party code (GoogleTest macros aside) is not held to them.
set(MERIVAK_WARNING_FLAGS
  -Wall -Wextra -Werror
  -Wshadow -Wnon-virtual-dtor -Wcast-align -Woverloaded-virtual
  -Wconversion -Wsign-conversion -Wdouble-promotion -Wformat=2
  -Wimplicit-fallthrough -Wmisleading-indentation
  # GCC only; clang builds the fuzzers.
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond -Wduplicated-branches -Wlogical-op>)

# Test code uses GoogleTest's macros, which trip a few of the pickier checks.
set(MERIVAK_TEST_WARNING_FLAGS -Wall -Wextra -Werror -Wshadow -Wnon-virtual-dtor)

function(merivak_warnings target)
  target_compile_options(${target} PRIVATE ${MERIVAK_WARNING_FLAGS})
endfunction()

function(merivak_test_warnings target)
  target_compile_options(${target} PRIVATE ${MERIVAK_TEST_WARNING_FLAGS})
endfunction()
