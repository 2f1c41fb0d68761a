// SPDX-License-Identifier: MIT
#include "thread/Monitor.h"

namespace thread {

Monitor::Monitor(bool constructionFlag) : Lockable(constructionFlag), m_mutex(constructionFlag), m_pDelegate(&m_mutex)
{
}

// Pure virtual, yet every derived destructor runs it; the own mutex is then
// destroyed as a member.
Monitor::~Monitor() = default;

bool Monitor::lock()
{
    return m_pDelegate->lock();
}

bool Monitor::tryLock()
{
    return m_pDelegate->tryLock();
}

int Monitor::unlock()
{
    return m_pDelegate->unlock();
}

Mutex& Monitor::getMutex()
{
    return m_mutex;
}

}  // namespace thread
