// SPDX-License-Identifier: MIT
// Helper process for the thread tests (ProcessTest.cpp) where only a fresh
// process shows the behaviour:
//
//   thread_probe timeout                    the lock timeout, fixed before main, and a change of it
//   thread_probe failed-creation <getter>   a process-wide object that cannot be made
//
// <getter>: lock-class-lock, thread-class-lock, handle-map,
//           logger-class-lock, scope-map

#include "thread/Lock.h"
#include "thread/Thread.h"
#include "thread/ThreadLogger.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

namespace {
std::atomic<bool> g_failNextAllocation{false};
}  // namespace

// Fails once on request; otherwise the usual operator new (a sanitizer's, if
// any), so that every operator delete still matches.
void* operator new(std::size_t size)
{
    using New = void* (*)(std::size_t);
    static const New next = reinterpret_cast<New>(dlsym(RTLD_NEXT, sizeof(std::size_t) == 8 ? "_Znwm" : "_Znwj"));
    if (g_failNextAllocation.exchange(false) || next == nullptr) {
        throw std::bad_alloc();
    }
    return next(size);
}

int main(int argc, char** argv)
{
    const std::string scenario = argc > 1 ? argv[1] : "";
    const std::string getter = argc > 2 ? argv[2] : "";
    if (scenario == "timeout") {
        unsetenv("GDB");  // too late: the timeout was taken before main
        const unsigned atStart = thread::Lock::getTimeout();
        const unsigned stored = thread::Lock::setTimeout(1);
        std::printf("timeout=%u stored=%u then=%u\n", atStart, stored, thread::Lock::getTimeout());
        return 0;
    }
    // The record must reach the pipe before abort() ends the process.
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    g_failNextAllocation.store(true);
    if (getter == "lock-class-lock") {
        thread::Lock::getClassLock();
    } else if (getter == "thread-class-lock") {
        thread::Thread::getClassLock();
    } else if (getter == "handle-map") {
        thread::Thread::getHandleMap();
    } else if (getter == "logger-class-lock") {
        thread::ThreadLogger::getClassLock();
    } else if (getter == "scope-map") {
        thread::ThreadLogger::getThreadByScope();
    }
    std::printf("the getter returned\n");
    return 3;
}
