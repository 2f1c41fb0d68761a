// SPDX-License-Identifier: MIT
#include "thread/Lock.h"

#include "logging/Log.h"
#include "thread/full/ProcessWide.h"
#include "thread/Mutex.h"

namespace thread {

namespace {

constexpr unsigned kDefaultTimeoutSeconds = 15;
constexpr unsigned kUnlimitedTimeoutSeconds = 31536000;  // 365 days

unsigned timeoutFromEnvironment()
{
    // Set, even to the empty value, means the process runs under a debugger.
    return std::getenv("GDB") != nullptr ? 0 : kDefaultTimeoutSeconds;
}

// The stored timeout lives in a function-local static so that a caller
// running during static initialisation, before this file's own statics,
// still finds it taken from the environment.
unsigned& storedTimeout()
{
    static unsigned timeout = timeoutFromEnvironment();
    return timeout;
}

// Fixes the timeout from the environment before main runs, whether or not
// anything asks for it earlier.
const unsigned& g_timeoutAtStartUp = storedTimeout();

}  // namespace

Lock::Lock(Lockable& lockable) : m_lockable(lockable)
{
    m_lockable.lock();
}

Lock::~Lock()
{
    m_lockable.unlock();
}

// Like every process-wide object of this library, the class lock is made on
// first use and never deleted, so it outlives static destructors and atexit
// handlers that may still take it.
Lockable& Lock::getClassLock()
{
    static Mutex* const s_pClassLock =
        newProcessWide<Mutex>([] { MERIVAK_LOG_ERROR("exception_logger", "Unexpected exception!"); }, false);
    return *s_pClassLock;
}

unsigned Lock::setTimeout(unsigned seconds)
{
    Lock guard(getClassLock());
    const unsigned previous = storedTimeout();
    storedTimeout() = seconds;
    return previous;
}

unsigned Lock::getTimeout()
{
    Lock guard(getClassLock());
    const unsigned stored = storedTimeout();
    return stored == 0 ? kUnlimitedTimeoutSeconds : stored;
}

}  // namespace thread
