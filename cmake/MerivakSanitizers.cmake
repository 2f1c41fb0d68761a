# SPDX-License-Identifier: MIT
# MERIVAK_SANITIZE=address builds everything with AddressSanitizer and
# UndefinedBehaviorSanitizer; MERIVAK_SANITIZE=thread with ThreadSanitizer.
# MERIVAK_BUILD_FUZZERS adds libFuzzer's coverage instrumentation to the
# address build.
if(MERIVAK_BUILD_FUZZERS AND NOT MERIVAK_SANITIZE STREQUAL "address")
  message(FATAL_ERROR "MERIVAK_BUILD_FUZZERS goes with MERIVAK_SANITIZE=address")
endif()
if(MERIVAK_SANITIZE STREQUAL "address")
  set(_san_flags -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(MERIVAK_SANITIZE STREQUAL "thread")
  set(_san_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT MERIVAK_SANITIZE STREQUAL "")
  message(FATAL_ERROR "MERIVAK_SANITIZE must be empty, 'address' or 'thread', not '${MERIVAK_SANITIZE}'")
endif()
if(MERIVAK_BUILD_FUZZERS)
  list(APPEND _san_flags -fsanitize=fuzzer-no-link)
endif()
if(_san_flags)
  add_compile_options(${_san_flags})
  add_link_options(${_san_flags})
endif()
