// SPDX-License-Identifier: MIT
#pragma once

#include "thread/Lockable.h"

namespace thread {

// Scoped guard: holds a Lockable from construction to the end of the scope,
// also when an exception leaves the scope.
class Lock {
public:
    // Locks the lockable; a failed lock() is not looked at, the guard goes
    // on as if the lock were held.
    explicit Lock(Lockable& lockable);
    ~Lock();

    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    // The process-wide lock that guards the lock timeout.
    static Lockable& getClassLock();

    // The process-wide lock timeout in seconds: 15, or 0 when the process
    // starts with "GDB" in its environment (so a debugger can hold threads
    // as long as it likes). Returns the previously stored value.
    static unsigned setTimeout(unsigned seconds);
    // The stored timeout, or 31536000 (365 days) while it is 0.
    static unsigned getTimeout();

private:
    Lockable& m_lockable;
};

}  // namespace thread
