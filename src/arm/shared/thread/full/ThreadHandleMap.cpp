// SPDX-License-Identifier: MIT
// Thread's process-wide data: its class lock and the map from the handle of
// a running thread to the object that describes it.
#include "thread/Thread.h"

#include "logging/Log.h"
#include "thread/full/ProcessWide.h"
#include "thread/Lock.h"

namespace thread {

// A null object registered by mistake is skipped rather than called.
Thread::THREAD_FROM_HANDLE::~THREAD_FROM_HANDLE()
{
    for (const value_type& entry : *this) {
        if (entry.second != nullptr) {
            entry.second->shutdown(true);
        }
    }
}

Mutex& Thread::getClassLock()
{
    static Mutex* const s_pClassLock =
        newProcessWide<Mutex>([] { MERIVAK_LOG_ERROR("exception_logger", "Unexpected exception!"); }, false);
    return *s_pClassLock;
}

Thread::THREAD_FROM_HANDLE& Thread::getHandleMap()
{
    static THREAD_FROM_HANDLE* const s_pHandleMap =
        newProcessWide<THREAD_FROM_HANDLE>([] { MERIVAK_LOG_ERROR("exception_logger", "Unexpected exception!"); });
    return *s_pHandleMap;
}

void Thread::registerThread(Thread* object, pthread_t handle)
{
    Lock guard(getClassLock());
    // insert() leaves an existing entry for the handle unchanged.
    getHandleMap().insert(THREAD_FROM_HANDLE::value_type(handle, object));
}

void Thread::unregisterThread(pthread_t handle)
{
    Lock guard(getClassLock());
    getHandleMap().erase(handle);
}

Thread* Thread::findThread(pthread_t handle)
{
    if (handle == 0) {
        handle = pthread_self();
    }
    Lock guard(getClassLock());
    const THREAD_FROM_HANDLE& handleMap = getHandleMap();
    const THREAD_FROM_HANDLE::const_iterator found = handleMap.find(handle);
    return found != handleMap.end() ? found->second : nullptr;
}

// The scope name is read after the class lock is released and without the
// object's lock: it never changes.
const char* Thread::getScopeName(pthread_t handle)
{
    Thread* const object = findThread(handle);
    return object != nullptr ? object->getScope() : EXTERNAL_SCOPE;
}

}  // namespace thread
