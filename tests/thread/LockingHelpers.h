// SPDX-License-Identifier: MIT
#ifndef MERIVAK_TESTS_THREAD_LOCKINGHELPERS_H
#define MERIVAK_TESTS_THREAD_LOCKINGHELPERS_H

#include "thread/Lockable.h"

#include <condition_variable>
#include <mutex>
#include <thread>

// Whether another thread can take the lockable right now (it lets go again
// at once if it could).
inline bool tryLockFromAnotherThread(thread::Lockable& lockable)
{
    bool taken = false;
    std::thread other([&] {
        taken = lockable.tryLock();
        if (taken) {
            lockable.unlock();
        }
    });
    other.join();
    return taken;
}

// Holds a lockable in a thread of its own until release() or destruction.
class ForeignHolder {
public:
    explicit ForeignHolder(thread::Lockable& lockable)
        : m_holder([this, &lockable] {
              lockable.lock();
              std::unique_lock<std::mutex> lock(m_mutex);
              m_holding = true;
              m_changed.notify_all();
              m_changed.wait(lock, [this] { return m_released; });
              lockable.unlock();
          })
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_holding; });
    }
    ~ForeignHolder() { release(); }
    ForeignHolder(const ForeignHolder&) = delete;
    ForeignHolder& operator=(const ForeignHolder&) = delete;

    void release()
    {
        if (!m_holder.joinable()) {
            return;
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_released = true;
        }
        m_changed.notify_all();
        m_holder.join();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_holding = false;
    bool m_released = false;
    std::thread m_holder;
};

#endif
