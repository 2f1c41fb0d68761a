// SPDX-License-Identifier: MIT
#ifndef MERIVAK_TESTS_THREAD_THREADTESTSUPPORT_H
#define MERIVAK_TESTS_THREAD_THREADTESTSUPPORT_H

#include "thread/Thread.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// A thread description as the board software derives one.
class TestThread : public thread::Thread {
public:
    explicit TestThread(const char* scope, int priority = 0, std::size_t stackSize = 0,
                        std::vector<const TestThread*>* shutdowns = nullptr)
        : Thread(scope, priority, false, stackSize), m_shutdowns(shutdowns)
    {
    }
    ~TestThread() override = default;

    void shutdown(bool argument) override
    {
        shutdownArgument = argument;
        if (m_shutdowns != nullptr) {
            m_shutdowns->push_back(this);
        }
    }

    bool shutdownArgument = false;

    using Thread::getCreationAttributes;

private:
    std::vector<const TestThread*>* m_shutdowns;
};

// A thread that stays alive, doing whatever it is handed, until destroyed.
class Worker {
public:
    Worker() : m_thread([this] { loop(); })
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_started; });
    }
    ~Worker()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stopping = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    pthread_t handle() const { return m_handle; }

    // Runs the task in the worker and waits for it to finish.
    template <typename Task>
    void run(Task task)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_task = task;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return !m_task; });
    }

private:
    void loop()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_handle = pthread_self();
        m_started = true;
        m_changed.notify_all();
        for (;;) {
            m_changed.wait(lock, [this] { return m_stopping || m_task; });
            if (m_task) {
                std::function<void()> task = m_task;
                lock.unlock();
                task();
                lock.lock();
                m_task = nullptr;
                m_changed.notify_all();
            } else {
                return;
            }
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_started = false;
    bool m_stopping = false;
    pthread_t m_handle = 0;
    std::function<void()> m_task;
    std::thread m_thread;
};

// Replaces the interrupt signal's handler by one that counts deliveries for
// the duration of a test, and puts the previous action back afterwards.
class InterruptCounter {
public:
    InterruptCounter()
    {
        s_count.store(0);
        struct sigaction counting;
        std::memset(&counting, 0, sizeof counting);
        sigemptyset(&counting.sa_mask);
        counting.sa_handler = count;
        sigaction(thread::Thread::INTERRUPT_SIGNAL, &counting, &m_previous);
    }
    ~InterruptCounter() { sigaction(thread::Thread::INTERRUPT_SIGNAL, &m_previous, nullptr); }
    InterruptCounter(const InterruptCounter&) = delete;
    InterruptCounter& operator=(const InterruptCounter&) = delete;

    int deliveries() const { return s_count.load(); }
    pthread_t lastReceiver() const { return s_receiver.load(); }

private:
    static void count(int)
    {
        s_receiver.store(pthread_self());
        s_count.fetch_add(1);
    }

    struct sigaction m_previous;
    static inline std::atomic<int> s_count{0};
    static inline std::atomic<pthread_t> s_receiver{0};
};

#endif
