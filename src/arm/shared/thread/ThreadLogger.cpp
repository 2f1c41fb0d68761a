// SPDX-License-Identifier: MIT
#include "thread/ThreadLogger.h"

#include "logging/Log.h"
#include "thread/Mutex.h"

#include <cstdlib>

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
    try {
        static Mutex* const s_pClassLock = new Mutex(false);
        return *s_pClassLock;
    } catch (...) {
        MERIVAK_LOG_ERROR("exception_logger", "Unexpected exception!");
        std::abort();
    }
}

ThreadLogger::THREAD_MAP& ThreadLogger::getThreadByScope()
{
    try {
        static THREAD_MAP* const s_pThreadByScope = new THREAD_MAP();
        return *s_pThreadByScope;
    } catch (...) {
        MERIVAK_LOG_ERROR("exception_logger", "Unexpected exception!");
        std::abort();
    }
}

}  // namespace thread
