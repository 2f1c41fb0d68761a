// SPDX-License-Identifier: MIT
// The next definition of an interposed function (the C library's, or a
// sanitizer runtime's when one is loaded first), found once with
// dlsym(RTLD_NEXT) and kept.
#pragma once

#include <dlfcn.h>
#include <unistd.h>

namespace boardsim {

[[noreturn]] void missingRealCall(const char* name);

template <typename Function>
Function nextDefinition(const char* name)
{
    void* symbol = dlsym(RTLD_NEXT, name);
    if (symbol == nullptr) {
        missingRealCall(name);
    }
    return reinterpret_cast<Function>(symbol);
}

}  // namespace boardsim

// Inside an interposed function: the next definition of the same name.
#define BOARDSIM_REAL(name)                                                                                            \
    ([]() {                                                                                                            \
        static const auto function = ::boardsim::nextDefinition<decltype(&::name)>(#name);                             \
        return function;                                                                                               \
    }())
