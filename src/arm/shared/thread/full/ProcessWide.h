// SPDX-License-Identifier: MIT
#pragma once

#include <cstdlib>
#include <utility>

namespace thread {

// Makes one of the library's process-wide objects (class locks, maps). The
// caller keeps the result in a function-local static, so it is made on first
// use and never deleted: it outlives static destructors and atexit handlers
// that may still take it. A failed creation is reported by logFailure, which
// each getter passes so that the record names the getter's own source
// location, and then ends the process: nothing of the library can work on
// without these objects.
template <typename T, typename LogFailure, typename... Args>
T* newProcessWide(LogFailure logFailure, Args&&... args)
{
    try {
        return new T(std::forward<Args>(args)...);
    } catch (...) {
        logFailure();
        std::abort();
    }
}

}  // namespace thread
