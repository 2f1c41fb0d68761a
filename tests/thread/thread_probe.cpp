// SPDX-License-Identifier: MIT
// Helper process for the thread tests: each scenario needs a fresh process
// (start-up from the environment, the first use of a process-wide object, a
// getter that aborts). The tests (ProcessTest.cpp) run it and check its
// output and how it ended.
//
//   thread_probe timeout
//   thread_probe first-use <getter>
//   thread_probe failed-creation <getter>
//   thread_probe interrupt-handler default|plain|siginfo
//   thread_probe foreign-unlock
//
// <getter>: lock-class-lock, thread-class-lock, handle-map,
//           logger-class-lock, scope-map

#include "thread/Lock.h"
#include "thread/Monitor.h"
#include "thread/Thread.h"
#include "thread/ThreadLogger.h"

#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

// ---- operator new that can be made to fail once ---------------------------

namespace {
std::atomic<bool> g_failNextAllocation{false};

void* allocate(std::size_t size)
{
    if (g_failNextAllocation.exchange(false)) {
        throw std::bad_alloc();
    }
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
}  // namespace

void* operator new(std::size_t size)
{
    return allocate(size);
}
void* operator new[](std::size_t size)
{
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}

// ---- scenarios --------------------------------------------------------------

namespace {

class ProbeThread : public thread::Thread {
public:
    ProbeThread() : thread::Thread("LOOP", 0) {}
    ~ProbeThread() override = default;
    void shutdown(bool) override {}
};

const void* callGetter(const std::string& getter)
{
    if (getter == "lock-class-lock")
        return &thread::Lock::getClassLock();
    if (getter == "thread-class-lock")
        return &thread::Thread::getClassLock();
    if (getter == "handle-map")
        return &thread::Thread::getHandleMap();
    if (getter == "logger-class-lock")
        return &thread::ThreadLogger::getClassLock();
    if (getter == "scope-map")
        return &thread::ThreadLogger::getThreadByScope();
    std::printf("unknown getter %s\n", getter.c_str());
    std::exit(2);
}

int timeout()
{
    const unsigned atStart = thread::Lock::getTimeout();
    const unsigned previous = thread::Lock::setTimeout(7);
    const unsigned afterSet = thread::Lock::getTimeout();
    std::printf("getTimeout=%u setTimeout(7)=%u then getTimeout=%u\n", atStart, previous, afterSet);
    return 0;
}

// Many threads released at one moment make the getter's first call.
int firstUse(const std::string& getter)
{
    constexpr int THREADS = 16;
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    std::vector<const void*> objects(THREADS, nullptr);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            ready.fetch_add(1);
            while (!go.load()) {
                std::this_thread::yield();
            }
            objects[static_cast<std::size_t>(i)] = callGetter(getter);
        });
    }
    while (ready.load() < THREADS) {
        std::this_thread::yield();
    }
    go.store(true);
    for (std::thread& worker : threads) {
        worker.join();
    }
    const std::set<const void*> distinct(objects.begin(), objects.end());
    std::printf("threads=%d distinct=%zu null=%d\n", THREADS, distinct.size(), distinct.count(nullptr) != 0 ? 1 : 0);
    return 0;
}

int failedCreation(const std::string& getter)
{
    // The catch-all's log record must reach the pipe before abort() ends
    // the process.
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    g_failNextAllocation.store(true);
    callGetter(getter);
    std::printf("the getter returned\n");
    return 3;
}

void markerHandler(int) {}
void markerHandlerWithInfo(int, siginfo_t*, void*) {}

bool isMarker(const struct sigaction& action)
{
    return (action.sa_flags & SA_SIGINFO) != 0 ? action.sa_sigaction == markerHandlerWithInfo
                                               : action.sa_handler == markerHandler;
}

struct sigaction currentAction()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    sigaction(SIGWINCH, nullptr, &action);
    return action;
}

int interruptHandler(const std::string& mode)
{
    struct sigaction before;
    std::memset(&before, 0, sizeof before);
    sigemptyset(&before.sa_mask);
    if (mode == "plain") {
        before.sa_handler = markerHandler;
        before.sa_flags = SA_ONSTACK;
        sigaddset(&before.sa_mask, SIGUSR1);
        sigaction(SIGWINCH, &before, nullptr);
    } else if (mode == "siginfo") {
        before.sa_sigaction = markerHandlerWithInfo;
        before.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigaddset(&before.sa_mask, SIGUSR1);
        sigaction(SIGWINCH, &before, nullptr);
    } else if (mode != "default") {
        std::printf("unknown mode %s\n", mode.c_str());
        return 2;
    }

    const ProbeThread first;
    const struct sigaction installed = currentAction();
    const bool isDefault =
        (installed.sa_flags & SA_SIGINFO) == 0 && (installed.sa_handler == SIG_DFL || installed.sa_handler == SIG_IGN);
    std::printf("handler-replaced=%d siginfo=%d onstack=%d restart=%d usr1-masked=%d\n",
                !isMarker(installed) && !isDefault, (installed.sa_flags & SA_SIGINFO) != 0,
                (installed.sa_flags & SA_ONSTACK) != 0, (installed.sa_flags & SA_RESTART) != 0,
                sigismember(&installed.sa_mask, SIGUSR1) == 1);

    // A later construction must leave whatever handler is there alone.
    struct sigaction marker;
    std::memset(&marker, 0, sizeof marker);
    sigemptyset(&marker.sa_mask);
    marker.sa_handler = markerHandler;
    sigaction(SIGWINCH, &marker, nullptr);
    const ProbeThread second;
    std::printf("second-construction-kept-handler=%d\n", isMarker(currentAction()));
    return 0;
}

class ProbeMonitor : public thread::Monitor {
public:
    ProbeMonitor() : Monitor(false) {}
    ~ProbeMonitor() override = default;
};

// Unlocking what another thread holds fails; the failure is passed on
// unchanged and the other thread keeps its hold. (A ThreadSanitizer build
// reports this misuse unless it runs with report_mutex_bugs=0.)
int foreignUnlock()
{
    thread::Mutex mutex(false);
    ProbeMonitor monitor;
    std::atomic<int> stage{0};
    std::thread holder([&] {
        mutex.lock();
        monitor.lock();
        stage.store(1);
        while (stage.load() != 2) {
            std::this_thread::yield();
        }
        mutex.unlock();
        monitor.unlock();
    });
    while (stage.load() != 1) {
        std::this_thread::yield();
    }
    const int mutexResult = mutex.unlock();
    const int monitorResult = monitor.unlock();
    const bool stillHeld = !mutex.tryLock() && !monitor.tryLock();
    stage.store(2);
    holder.join();
    std::printf("mutex-unlock=%d monitor-unlock=%d still-held=%d\n", mutexResult, monitorResult, stillHeld);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string scenario = argc > 1 ? argv[1] : "";
    const std::string argument = argc > 2 ? argv[2] : "";
    if (scenario == "timeout")
        return timeout();
    if (scenario == "first-use")
        return firstUse(argument);
    if (scenario == "failed-creation")
        return failedCreation(argument);
    if (scenario == "interrupt-handler")
        return interruptHandler(argument);
    if (scenario == "foreign-unlock")
        return foreignUnlock();
    std::printf("usage: thread_probe timeout | first-use <getter> | failed-creation <getter> | "
                "interrupt-handler default|plain|siginfo | foreign-unlock\n");
    return 2;
}
