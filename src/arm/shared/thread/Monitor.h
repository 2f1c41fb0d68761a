// SPDX-License-Identifier: MIT
#pragma once

#include "thread/Lockable.h"
#include "thread/Mutex.h"

namespace thread {

// Makes an object its own lock: a derived class guards its shared state with
// a thread::Lock on *this. The lock is recursive, so member functions that
// take the guard may call each other while it is held.
class Monitor : public Lockable {
public:
    explicit Monitor(bool constructionFlag);
    ~Monitor() override = 0;

    // Forward to the delegate, which is the object's own mutex.
    bool lock() override;
    bool tryLock() override;
    int unlock() override;

    // The object's own mutex (not the delegate), without locking it.
    Mutex& getMutex();

private:
    Mutex m_mutex;
    Lockable* m_pDelegate;
};

}  // namespace thread
