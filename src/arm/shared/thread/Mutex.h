// SPDX-License-Identifier: MIT
#pragma once

#include "thread/Lockable.h"

#include <pthread.h>

namespace thread {

// A recursive POSIX mutex: the thread that holds it may lock it again, and
// it is free once every lock() has been matched by an unlock(). There is no
// non-recursive kind: the classes built on it take the same lock several
// levels deep.
class Mutex : public Lockable {
public:
    explicit Mutex(bool constructionFlag = false);
    ~Mutex() override;

    bool lock() override;
    bool tryLock() override;
    // Passes pthread_mutex_unlock's result on unchanged.
    int unlock() override;

private:
    pthread_mutex_t m_mutex;
};

}  // namespace thread
