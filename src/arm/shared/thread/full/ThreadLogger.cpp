// SPDX-License-Identifier: MIT
#include "thread/ThreadLogger.h"

#include "logging/Log.h"
#include "thread/full/ProcessWide.h"
#include "thread/Mutex.h"

namespace thread {

ThreadLogger::ThreadLogger() : m_flag(false) {}

ThreadLogger::~ThreadLogger() = default;

bool ThreadLogger::open()
{
    return true;
}

bool ThreadLogger::close()
{
    return true;
}

Lockable& ThreadLogger::getClassLock()
{
    static Mutex* const s_pClassLock =
        newProcessWide<Mutex>([] { MERIVAK_LOG_ERROR("exception_logger", "Unexpected exception!"); }, false);
    return *s_pClassLock;
}

ThreadLogger::THREAD_MAP& ThreadLogger::getThreadByScope()
{
    static THREAD_MAP* const s_pThreadByScope =
        newProcessWide<THREAD_MAP>([] { MERIVAK_LOG_ERROR("exception_logger", "Unexpected exception!"); });
    return *s_pThreadByScope;
}

}  // namespace thread
