// SPDX-License-Identifier: MIT
// The locking primitives (recursive mutex, monitor, scoped guard) and the
// layer that reports through the log: thread descriptions (creation
// attributes, the interrupt handler, the handle map, requested sleeps,
// interrupting, priorities) and the class locks of the process-wide objects.
#include "LibcInterposers.h"
#include "thread/Lock.h"
#include "thread/Thread.h"
#include "thread/ThreadLogger.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <sys/time.h>

#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using thread::Thread;
using Calls = std::vector<std::tuple<pthread_t, int, int>>;

// A thread description as the board software derives one.
class TestThread : public Thread {
public:
    using Thread::getCreationAttributes;
    using Thread::Thread;
    ~TestThread() override = default;
    void shutdown(bool argument) override { shutdowns->emplace_back(this, argument); }
    std::vector<std::pair<const TestThread*, bool>>* shutdowns = nullptr;
};

const pthread_t FOREIGN_HANDLE = static_cast<pthread_t>(4242);

// Whether another thread can take the lockable right now (it lets go again
// at once if it could).
bool freeForOtherThreads(thread::Lockable& lockable)
{
    bool taken = false;
    std::thread([&] {
        taken = lockable.tryLock();
        if (taken) {
            lockable.unlock();
        }
    }).join();
    return taken;
}

// The holder may take the lock again by lock(), tryLock() or a guard; other
// threads wait until every hold is given back. A monitor's (here a Thread's)
// lock is its own mutex.
TEST(LockingTest, RecursiveHoldsExcludeOtherThreadsUntilTheLastUnlock)
{
    thread::Mutex mutex;
    TestThread monitor("LOOP", 0);
    const std::pair<thread::Lockable*, thread::Lockable*> cases[] = {
        {&mutex, &mutex}, {&monitor, &monitor.getMutex()}, {&monitor.getMutex(), &monitor}};
    for (const auto& [held, seen] : cases) {
        ASSERT_TRUE(held->lock());
        {
            thread::Lock guard(*held);
            ASSERT_TRUE(held->tryLock());
            EXPECT_EQ(0, held->unlock());
        }
        EXPECT_FALSE(freeForOtherThreads(*seen)) << "free before the last unlock";
        EXPECT_EQ(0, held->unlock());
        EXPECT_TRUE(freeForOtherThreads(*seen));
    }
}

// Before any Thread exists, the interrupt signal gets a handler that takes
// siginfo, runs on the alternate stack and masks SIGUSR1.
void earlierHandler(int, siginfo_t*, void*) {}
const bool g_earlierHandlerSet = [] {
    struct sigaction action {};
    action.sa_sigaction = earlierHandler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGUSR1);
    return sigaction(Thread::INTERRUPT_SIGNAL, &action, nullptr) == 0;
}();

// The first Thread replaced that handler, keeping its mask and flags but
// never SA_RESTART (blocking calls must see EINTR); later Threads leave the
// handler alone.
TEST(ThreadTest, FirstThreadOnlyReplacesTheInterruptHandlerKeepingMaskAndFlags)
{
    ASSERT_TRUE(g_earlierHandlerSet);
    const TestThread first("LOOP", 0);
    struct sigaction installed {};
    sigaction(Thread::INTERRUPT_SIGNAL, nullptr, &installed);
    EXPECT_NE(&earlierHandler, installed.sa_sigaction);
    EXPECT_EQ(SA_SIGINFO | SA_ONSTACK, installed.sa_flags & (SA_SIGINFO | SA_ONSTACK | SA_RESTART));
    EXPECT_EQ(1, sigismember(&installed.sa_mask, SIGUSR1));
    struct sigaction later = installed;
    later.sa_sigaction = earlierHandler;
    sigaction(Thread::INTERRUPT_SIGNAL, &later, nullptr);
    const TestThread second("LOOP", 0);
    sigaction(Thread::INTERRUPT_SIGNAL, &installed, &later);
    EXPECT_EQ(&earlierHandler, later.sa_sigaction);
}

// ---- handle map ------------------------------------------------------------

// A new object has the given stack and is not registered until setHandle()
// names its thread.
TEST(ThreadTest, SetHandleRegistersTheFirstObjectForAThreadAndZeroUnregisters)
{
    TestThread object("MEAS", 0, false, 512 * 1024);
    EXPECT_EQ(0u, object.getPendingSleep());
    std::size_t stackSize = 0;
    pthread_attr_getstacksize(object.getCreationAttributes(), &stackSize);
    EXPECT_EQ(512u * 1024u, stackSize);
    EXPECT_EQ(pthread_t{0}, object.getHandle());
    EXPECT_FALSE(object.isRunning());
    object.setHandle(pthread_self());
    EXPECT_TRUE(object.isRunning());
    EXPECT_EQ(&object, Thread::findThread());
    const pthread_t mainThread = pthread_self();
    std::string scopes;
    std::thread([&] { scopes = std::string(Thread::getScopeName()) + " " + Thread::getScopeName(mainThread); }).join();
    EXPECT_EQ("EXTERNAL MEAS", scopes);
    // A handle's first registration wins; a new handle leaves the old entry
    // in place, and clearing removes only the handle the object holds.
    TestThread second("LOOP", 0);
    second.setHandle(mainThread);
    EXPECT_EQ(&object, Thread::findThread());
    second.setHandle(FOREIGN_HANDLE);
    EXPECT_EQ(&second, Thread::findThread(FOREIGN_HANDLE));
    second.setHandle(0);
    EXPECT_EQ(nullptr, Thread::findThread(FOREIGN_HANDLE));
    EXPECT_EQ(&object, Thread::findThread());
    object.setHandle(0);
    EXPECT_EQ(nullptr, Thread::findThread(mainThread));
    EXPECT_STREQ("EXTERNAL", Thread::getScopeName());
}

// Handles order as unsigned numbers; a null entry is skipped.
TEST(ThreadTest, DestroyingAMapShutsObjectsDownInAscendingHandleOrder)
{
    std::vector<std::pair<const TestThread*, bool>> shutdowns;
    TestThread high("ALARM", 0);
    TestThread low("TC", 0);
    high.shutdowns = low.shutdowns = &shutdowns;
    {
        Thread::THREAD_FROM_HANDLE map;
        map[static_cast<pthread_t>(-1)] = &high;
        map[static_cast<pthread_t>(7)] = &low;
        map[static_cast<pthread_t>(9)] = nullptr;
    }
    const std::vector<std::pair<const TestThread*, bool>> expected = {{&low, true}, {&high, true}};
    EXPECT_EQ(expected, shutdowns);
}

// ---- sleeping --------------------------------------------------------------

// In the object's own thread sleep() sleeps; from anywhere else it records a
// pending sleep unless one is pending already.
TEST(ThreadTest, SleepInTheOwnThreadSleepsElsewhereItRecordsOnePendingSleep)
{
    // (handle, 1 meaning the calling thread; pending sleep before; what
    // nanosleep returns; what sleep() returns; pending sleep after)
    const std::tuple<pthread_t, unsigned, int, bool, unsigned> cases[] = {{1, 0, 0, true, 0},
                                                                          {1, 0, -1, false, 0},
                                                                          {FOREIGN_HANDLE, 0, 0, true, 2500},
                                                                          {FOREIGN_HANDLE, 1, 0, false, 1},
                                                                          {0, 0, 0, true, 2500},
                                                                          {0, 1, 0, false, 1}};
    for (const auto& [handle, pendingBefore, sleepResult, returned, pendingAfter] : cases) {
        TestThread object("LOOP", 0);
        const bool ownThread = handle == 1;
        object.setHandle(ownThread ? pthread_self() : handle);
        object.setPendingSleep(pendingBefore);
        interpose::Script script;
        script.sleeps = {{sleepResult, EINVAL, {}}};
        EXPECT_EQ(returned, object.sleep(2500));
        EXPECT_EQ(pendingAfter, object.getPendingSleep());
        EXPECT_EQ(ownThread ? 1u : 0u, script.sleepRequests.size()) << "only the own thread sleeps";
        object.setHandle(0);
    }
}

// The receiver waits for the interrupt signal with it blocked; the signal
// must reach it and never the caller, also when the caller is the object's
// thread or there is none.
TEST(ThreadTest, InterruptSignalsOnlyTheObjectsRunningThread)
{
    sigset_t interrupt;
    sigset_t previous;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, Thread::INTERRUPT_SIGNAL);
    pthread_sigmask(SIG_BLOCK, &interrupt, &previous);  // inherited by the receiver
    int received = 0;
    std::thread receiver([&] {
        const timespec limit{10, 0};
        received = sigtimedwait(&interrupt, nullptr, &limit);
    });
    TestThread object("ALARM", 0);
    object.interrupt();
    object.setHandle(pthread_self());
    object.interrupt();
    object.setHandle(receiver.native_handle());
    object.interrupt();
    receiver.join();
    object.setHandle(0);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(0, sigismember(&pending, Thread::INTERRUPT_SIGNAL)) << "the caller signalled itself";
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    EXPECT_EQ(Thread::INTERRUPT_SIGNAL, received);
}

// ---- priorities and helpers ------------------------------------------------

// applyPriority(handle, wanted) returns the priority before and calls the
// scheduler only when policy or priority differ: round robin above 0,
// normal scheduling otherwise. Handle 0 is the calling thread.
TEST(ThreadTest, ApplyPriorityCallsTheSchedulerOnlyWhenPolicyOrPriorityDiffer)
{
    // (policy, priority now; handle; wanted priority; policy set, -1: no call)
    const std::tuple<int, int, pthread_t, int, int> cases[] = {
        {SCHED_OTHER, 0, 0, 0, -1},           {SCHED_RR, 5, 0, 5, -1},
        {SCHED_OTHER, 0, 0, 1, SCHED_RR},     {SCHED_FIFO, 5, 0, 5, SCHED_RR},
        {SCHED_OTHER, 0, 0, -1, SCHED_OTHER}, {SCHED_RR, 5, FOREIGN_HANDLE, 0, SCHED_OTHER}};
    for (const auto& [policy, priority, handle, wanted, newPolicy] : cases) {
        interpose::Script script;
        script.currentPolicy = std::make_pair(policy, priority);
        EXPECT_EQ(priority, Thread::applyPriority(handle, wanted));
        const pthread_t target = handle != 0 ? handle : pthread_self();
        EXPECT_EQ((newPolicy < 0 ? Calls{} : Calls{{target, newPolicy, wanted}}), script.schedulingCalls)
            << policy << "/" << priority << " -> " << wanted;
    }
}

// Only stored while not running (returning the stored value), applied while
// running (returning the thread's priority before).
TEST(ThreadTest, SetPriorityStoresItAndAppliesItWhileRunning)
{
    TestThread object("MEAS", 3);
    interpose::Script script;
    script.currentPolicy = std::make_pair(SCHED_OTHER, 0);
    EXPECT_EQ(3, object.setPriority(7));
    object.setHandle(pthread_self());
    EXPECT_EQ(0, object.setPriority(4));
    EXPECT_EQ((Calls{{pthread_self(), SCHED_RR, 4}}), script.schedulingCalls);
    object.setHandle(0);
}

// The wall clock now, in whole microseconds, plus whole seconds.
TEST(ThreadTest, AbsoluteTimeAddsWholeSecondsToTheWallClockAndYieldSucceeds)
{
    for (const int seconds : {5, -3}) {
        timeval now{};
        gettimeofday(&now, nullptr);
        timespec result{};
        Thread::absoluteTime(result, seconds);
        EXPECT_NEAR(static_cast<double>(now.tv_sec + seconds), static_cast<double>(result.tv_sec), 1.0);
        EXPECT_EQ(0, result.tv_nsec % 1000);
    }
    EXPECT_TRUE(Thread::yield());
}

// The lock order relies on three separate class locks; the scope logger's
// open and close always succeed.
TEST(LockingTest, ClassLocksAreDistinctAndScopeLoggerCallsSucceed)
{
    const std::set<thread::Lockable*> locks = {&thread::Lock::getClassLock(), &thread::Thread::getClassLock(),
                                               &thread::ThreadLogger::getClassLock()};
    EXPECT_EQ(3u, locks.size());
    thread::ThreadLogger logger;
    EXPECT_TRUE(logger.open());
    EXPECT_TRUE(logger.close());
}

}  // namespace
