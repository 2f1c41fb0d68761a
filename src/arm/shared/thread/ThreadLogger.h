// SPDX-License-Identifier: MIT
#pragma once

#include "thread/Lockable.h"

#include <pthread.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace thread {

// The board software's per-thread logging companion. This library defines
// its process-wide objects: a class lock of its own and the map from scope
// to the threads that log in it. The scopes are the scope names of
// thread::Thread ("ALARM", "TC", "SOURCE", "MEAS", "LOOP", and "EXTERNAL"
// for threads without a thread::Thread object).
class ThreadLogger {
public:
    // Keyed by the scope name itself (a string, so that equal names from
    // different places meet at one entry); each scope holds the handles of
    // the threads that log in it.
    typedef std::map<std::string, std::set<pthread_t>> THREAD_MAP;

    ThreadLogger();
    virtual ~ThreadLogger();

    ThreadLogger(const ThreadLogger&) = delete;
    ThreadLogger& operator=(const ThreadLogger&) = delete;

    // Opening and closing a scope logger acquire and release nothing in this
    // library, so both always succeed; they are kept for the board software
    // that calls them.
    bool open();
    bool close();

    // The lock under which the scope map is read and changed; independent
    // of thread::Thread's class lock, and never held together with it.
    static Lockable& getClassLock();
    static THREAD_MAP& getThreadByScope();

private:
    // Two words that belong to the board software's scope logger; the
    // constructor leaves them as they are and nothing here reads them.
    int32_t m_firstWord;
    int32_t m_secondWord;
    // Cleared by the constructor.
    bool m_flag;
};

}  // namespace thread
