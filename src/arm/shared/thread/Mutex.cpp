// SPDX-License-Identifier: MIT
#include "thread/Mutex.h"

#include <cstring>

namespace thread {

Mutex::Mutex(bool constructionFlag) : Lockable(constructionFlag)
{
    std::memset(&m_mutex, 0, sizeof m_mutex);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

// Takes the mutex if it is free and releases that hold again before
// destroying it; failures of these calls are not detected.
Mutex::~Mutex()
{
    pthread_mutex_trylock(&m_mutex);
    pthread_mutex_unlock(&m_mutex);
    pthread_mutex_destroy(&m_mutex);
}

bool Mutex::lock()
{
    return pthread_mutex_lock(&m_mutex) == 0;
}

bool Mutex::tryLock()
{
    return pthread_mutex_trylock(&m_mutex) == 0;
}

int Mutex::unlock()
{
    return pthread_mutex_unlock(&m_mutex);
}

}  // namespace thread
