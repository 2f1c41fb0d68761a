// SPDX-License-Identifier: MIT
#pragma once

#include "thread/Monitor.h"
#include "thread/Mutex.h"
#include "thread/Sleep.h"

#include <pthread.h>
#include <time.h>

#include <cstddef>
#include <map>
#include <type_traits>

namespace thread {

// Describes one thread of the board software: its scope name, its wanted
// scheduling priority, the attributes to create it with, the handle of the
// POSIX thread that currently runs it and a sleep requested by another
// thread. The library creates no threads: whoever starts one enters its
// handle with setHandle() and clears it with setHandle(0) before the object
// is destroyed.
//
// Every member is guarded by the object's own recursive lock. Lock order:
// an object's lock, then the class lock; never the reverse.
class Thread : public Monitor {
public:
    // Handles are integers here; the map orders them as unsigned numbers.
    static_assert(std::is_integral<pthread_t>::value && std::is_unsigned<pthread_t>::value,
                  "pthread_t must be an unsigned integer to order the handle map");

    // Registered objects by the handle of the thread that runs them.
    class THREAD_FROM_HANDLE : public std::map<pthread_t, Thread*> {
    public:
        THREAD_FROM_HANDLE() = default;
        // Shuts every registered object down, in ascending handle order.
        ~THREAD_FROM_HANDLE();
        THREAD_FROM_HANDLE(const THREAD_FROM_HANDLE&) = delete;
        THREAD_FROM_HANDLE& operator=(const THREAD_FROM_HANDLE&) = delete;
    };

    // Signal 28 (SIGWINCH on Linux) interrupts a thread's blocking call.
    static constexpr int INTERRUPT_SIGNAL = 28;
    // Scope name of a thread for which no object is registered.
    static constexpr const char* EXTERNAL_SCOPE = "EXTERNAL";
    // The board's scope names.
    static constexpr const char* SCOPE_NAMES[] = {"ALARM", "TC", "SOURCE", "MEAS", "LOOP"};

    // The scope name is not copied: it must outlive the object. The first
    // construction in the process installs the handler of the interrupt
    // signal. A stack size of 0 keeps the system's default.
    Thread(const char* scope, int priority, bool constructionFlag = false, std::size_t stackSize = 0);
    ~Thread() override = 0;

    // What shutting down means is the derived class's business; the handle
    // map's destructor calls it with true.
    virtual void shutdown(bool) = 0;

    // True if a handle is set and that thread still exists.
    bool isRunning();
    // From the object's own thread: sleeps the full time, true if it did.
    // From any other thread: records a pending sleep for the object's thread
    // unless one is already pending; true if recorded.
    bool sleep(unsigned microseconds);
    // Sends the interrupt signal to the object's running thread, unless the
    // caller is that thread.
    void interrupt();
    // Stores the wanted priority and applies it if the thread is running.
    // Returns the thread's priority before the change when running, else the
    // previously stored priority.
    int setPriority(int priority);

    const char* getScope() const;
    pthread_t getHandle();
    // Enters (h != 0) or clears (h == 0) the running thread's handle and
    // registers or unregisters the object in the handle map.
    void setHandle(pthread_t handle);
    unsigned getPendingSleep();
    void setPendingSleep(unsigned microseconds);

    static Mutex& getClassLock();
    static THREAD_FROM_HANDLE& getHandleMap();
    // The first registration of a handle wins.
    static void registerThread(Thread* object, pthread_t handle);
    static void unregisterThread(pthread_t handle);
    // Handle 0 means the calling thread; null if no object is registered.
    static Thread* findThread(pthread_t handle = 0);
    // Handle 0 means the calling thread; EXTERNAL_SCOPE if none registered.
    static const char* getScopeName(pthread_t handle = 0);
    // Gives the thread (0: the calling one) round-robin real-time scheduling
    // at the priority if it is above 0, normal scheduling otherwise, making
    // no call when policy and priority are already right. Returns the
    // thread's priority before the change.
    static int applyPriority(pthread_t handle, int priority);
    static bool yield();
    // The wall-clock time now plus whole seconds.
    static void absoluteTime(timespec& result, int seconds);

protected:
    // The attributes a derived class creates its POSIX thread with.
    const pthread_attr_t* getCreationAttributes() const;

private:
    pthread_attr_t m_creationAttributes;
    int m_priority;
    const char* const m_scope;
    pthread_t m_handle;
    unsigned m_pendingSleep;
};

}  // namespace thread
