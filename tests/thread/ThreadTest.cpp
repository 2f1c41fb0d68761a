// SPDX-License-Identifier: MIT
#include "LibcInterposers.h"
#include "LockingHelpers.h"
#include "ThreadTestSupport.h"
#include "thread/Lock.h"

#include <gtest/gtest.h>

#include <sched.h>

#include <chrono>
#include <cstring>
#include <string>

namespace {

using thread::Thread;

// ---- description and creation attributes ---------------------------------------

TEST(ThreadDescriptionTest, KeepsTheScopeTextItWasGiven)
{
    static const char scope[] = "SOURCE";
    TestThread object(scope);
    EXPECT_EQ(scope, object.getScope()) << "the scope text is not copied";
    EXPECT_EQ(pthread_t{0}, object.getHandle());
    EXPECT_EQ(0u, object.getPendingSleep());
    EXPECT_FALSE(object.isRunning());
}

TEST(ThreadDescriptionTest, CreationAttributesAreJoinableWithTheGivenStack)
{
    TestThread sized("TC", 0, 512 * 1024);
    int detachState = -1;
    pthread_attr_getdetachstate(sized.getCreationAttributes(), &detachState);
    EXPECT_EQ(PTHREAD_CREATE_JOINABLE, detachState);
    std::size_t stackSize = 0;
    pthread_attr_getstacksize(sized.getCreationAttributes(), &stackSize);
    EXPECT_EQ(512u * 1024u, stackSize);

    pthread_attr_t fresh;
    pthread_attr_init(&fresh);
    std::size_t defaultStackSize = 0;
    pthread_attr_getstacksize(&fresh, &defaultStackSize);
    pthread_attr_destroy(&fresh);
    TestThread unsized("TC");
    pthread_attr_getstacksize(unsized.getCreationAttributes(), &stackSize);
    EXPECT_EQ(defaultStackSize, stackSize) << "stack size 0 keeps the default";
}

TEST(ThreadDescriptionTest, ConstructionInstallsAHandlerForTheInterruptSignal)
{
    TestThread object("LOOP");
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    sigaction(Thread::INTERRUPT_SIGNAL, nullptr, &action);
    const bool installed = (action.sa_flags & SA_SIGINFO) != 0
                               ? action.sa_sigaction != nullptr
                               : action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
    EXPECT_TRUE(installed);
    EXPECT_EQ(0, action.sa_flags & SA_RESTART) << "blocking calls must fail with EINTR";
}

TEST(ThreadDescriptionTest, ObjectLockIsRecursiveAndExcludesOtherThreads)
{
    TestThread object("MEAS");
    thread::Lock outer(object);
    object.setPendingSleep(3);  // takes the object's lock again
    EXPECT_EQ(3u, object.getPendingSleep());
    EXPECT_FALSE(tryLockFromAnotherThread(object));
}

// ---- handle map -------------------------------------------------------------------

TEST(HandleMapTest, UnregisteredThreadIsExternal)
{
    EXPECT_EQ(nullptr, Thread::findThread(0));
    EXPECT_STREQ("EXTERNAL", Thread::getScopeName(0));
    EXPECT_STREQ("EXTERNAL", Thread::getScopeName());
}

TEST(HandleMapTest, SetHandleRegistersAndZeroUnregisters)
{
    TestThread object("MEAS");
    object.setHandle(pthread_self());
    EXPECT_EQ(pthread_self(), object.getHandle());
    EXPECT_EQ(&object, Thread::findThread(0));
    EXPECT_EQ(&object, Thread::findThread(pthread_self()));
    EXPECT_STREQ("MEAS", Thread::getScopeName(0));
    EXPECT_TRUE(object.isRunning());

    const pthread_t mainThread = pthread_self();
    std::string scopeSeenElsewhere;
    std::string mainScopeSeenElsewhere;
    std::thread other([&] {
        scopeSeenElsewhere = Thread::getScopeName(0);
        mainScopeSeenElsewhere = Thread::getScopeName(mainThread);
    });
    other.join();
    EXPECT_EQ("EXTERNAL", scopeSeenElsewhere);
    EXPECT_EQ("MEAS", mainScopeSeenElsewhere);

    object.setHandle(0);
    EXPECT_EQ(pthread_t{0}, object.getHandle());
    EXPECT_EQ(nullptr, Thread::findThread(0));
    EXPECT_STREQ("EXTERNAL", Thread::getScopeName(0));
    EXPECT_EQ(0u, Thread::getHandleMap().count(pthread_self()));
}

TEST(HandleMapTest, FirstRegistrationOfAHandleWins)
{
    TestThread first("ALARM");
    TestThread second("LOOP");
    first.setHandle(pthread_self());
    second.setHandle(pthread_self());
    EXPECT_EQ(&first, Thread::findThread(0));
    EXPECT_STREQ("ALARM", Thread::getScopeName(0));
    EXPECT_EQ(pthread_self(), second.getHandle()) << "the object still records its handle";

    // Clearing either object's handle removes the handle's entry.
    second.setHandle(0);
    EXPECT_EQ(nullptr, Thread::findThread(0));
    first.setHandle(0);
}

TEST(HandleMapTest, ReplacingAHandleKeepsTheOldEntry)
{
    Worker worker;
    TestThread object("TC");
    object.setHandle(pthread_self());
    object.setHandle(worker.handle());
    EXPECT_EQ(&object, Thread::findThread(worker.handle()));
    EXPECT_EQ(&object, Thread::findThread(pthread_self()));
    Thread::unregisterThread(pthread_self());
    object.setHandle(0);
    EXPECT_EQ(nullptr, Thread::findThread(worker.handle()));
}

TEST(HandleMapTest, RegistrationsFromManyThreadsAreAllKept)
{
    constexpr int THREADS = 8;
    std::vector<std::unique_ptr<TestThread>> objects;
    for (int i = 0; i < THREADS; ++i) {
        objects.push_back(std::make_unique<TestThread>("LOOP"));
    }
    std::vector<std::string> scopes(THREADS);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            const std::size_t index = static_cast<std::size_t>(i);
            objects[index]->setHandle(pthread_self());
            scopes[index] = Thread::findThread(0) == objects[index].get() ? "found" : "lost";
            objects[index]->setHandle(0);
        });
    }
    for (std::thread& worker : threads) {
        worker.join();
    }
    for (const std::string& scope : scopes) {
        EXPECT_EQ("found", scope);
    }
}

TEST(HandleMapTest, DestroyingAMapShutsObjectsDownInAscendingHandleOrder)
{
    std::vector<const TestThread*> shutdowns;
    TestThread high("ALARM", 0, 0, &shutdowns);
    TestThread low("TC", 0, 0, &shutdowns);
    TestThread middle("MEAS", 0, 0, &shutdowns);
    {
        Thread::THREAD_FROM_HANDLE map;
        map[static_cast<pthread_t>(-1)] = &high;  // ordered as unsigned: largest
        map[static_cast<pthread_t>(7)] = &low;
        map[static_cast<pthread_t>(300)] = &middle;
        map[static_cast<pthread_t>(9)] = nullptr;
    }
    ASSERT_EQ(3u, shutdowns.size());
    EXPECT_EQ(&low, shutdowns[0]);
    EXPECT_EQ(&middle, shutdowns[1]);
    EXPECT_EQ(&high, shutdowns[2]);
    EXPECT_TRUE(low.shutdownArgument);
    EXPECT_TRUE(high.shutdownArgument);
}

// ---- pending sleep ------------------------------------------------------------------

TEST(ThreadSleepTest, SleepFromAnotherThreadOnlyRecordsTheFirstRequest)
{
    Worker worker;
    TestThread object("LOOP");
    object.setHandle(worker.handle());
    interpose::Script script;
    EXPECT_TRUE(object.sleep(2500));
    EXPECT_EQ(2500u, object.getPendingSleep());
    EXPECT_FALSE(object.sleep(9000));
    EXPECT_EQ(2500u, object.getPendingSleep()) << "the first request stays";
    EXPECT_TRUE(script.sleepRequests().empty()) << "the caller itself must not sleep";
    object.setPendingSleep(0);
    EXPECT_TRUE(object.sleep(9000));
    EXPECT_EQ(9000u, object.getPendingSleep());
    object.setHandle(0);
}

TEST(ThreadSleepTest, SleepOfAnObjectWithoutHandleIsRecorded)
{
    TestThread object("LOOP");
    interpose::Script script;
    EXPECT_TRUE(object.sleep(40));
    EXPECT_EQ(40u, object.getPendingSleep());
    EXPECT_TRUE(script.sleepRequests().empty());
}

TEST(ThreadSleepTest, SleepInTheObjectsOwnThreadSleeps)
{
    TestThread object("LOOP");
    object.setHandle(pthread_self());
    {
        interpose::Script script;
        script.scriptSleeps({{0, 0, {}}});
        EXPECT_TRUE(object.sleep(1500000));
        ASSERT_EQ(1u, script.sleepRequests().size());
        EXPECT_EQ(1, script.sleepRequests()[0].tv_sec);
        EXPECT_EQ(500000000, script.sleepRequests()[0].tv_nsec);
        EXPECT_EQ(0u, object.getPendingSleep());
    }
    {
        interpose::Script script;
        script.scriptSleeps({{-1, EINVAL, {}}});
        EXPECT_FALSE(object.sleep(10)) << "a failed sleep is reported";
    }
    object.setHandle(0);
}

// ---- interrupt -------------------------------------------------------------------------

TEST(InterruptTest, NothingIsSentWithoutAHandleOrToTheCallerItself)
{
    TestThread object("ALARM");
    InterruptCounter counter;
    object.interrupt();
    object.setHandle(pthread_self());
    object.interrupt();
    object.setHandle(0);
    EXPECT_EQ(0, counter.deliveries());
}

TEST(InterruptTest, SignalsTheObjectsRunningThread)
{
    TestThread object("ALARM");
    InterruptCounter counter;
    Worker worker;
    object.setHandle(worker.handle());
    EXPECT_TRUE(object.isRunning());
    object.interrupt();
    // Wait in the worker, inside intercepted blocking calls, for the signal.
    worker.run([&] {
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (counter.deliveries() == 0 && std::chrono::steady_clock::now() < giveUp) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
    EXPECT_EQ(1, counter.deliveries());
    EXPECT_TRUE(pthread_equal(worker.handle(), counter.lastReceiver()));
    object.setHandle(0);
}

// ---- priorities -------------------------------------------------------------------------

using Call = interpose::SchedulingCall;

bool sameCall(const Call& expected, const Call& actual)
{
    return pthread_equal(expected.handle, actual.handle) && expected.policy == actual.policy &&
           expected.priority == actual.priority;
}

// The thread runs under (policy, priority); applyPriority(handle, wanted)
// returns the priority before and calls the scheduler only when either
// differs: round robin above priority 0, normal scheduling otherwise.
struct ApplyCase {
    int policy;
    int priority;
    bool otherThread;
    int wanted;
    bool calls;
    int expectedPolicy;
};

class ApplyPriorityTest : public ::testing::TestWithParam<ApplyCase> {};

TEST_P(ApplyPriorityTest, CallsTheSchedulerOnlyWhenPolicyOrPriorityDiffer)
{
    const ApplyCase& c = GetParam();
    interpose::Script script;
    script.setScheduling(c.policy, c.priority);
    const pthread_t target = c.otherThread ? static_cast<pthread_t>(4242) : pthread_self();
    EXPECT_EQ(c.priority, Thread::applyPriority(c.otherThread ? target : 0, c.wanted));
    if (!c.calls) {
        EXPECT_TRUE(script.schedulingCalls().empty());
        return;
    }
    ASSERT_EQ(1u, script.schedulingCalls().size());
    EXPECT_TRUE(sameCall({target, c.expectedPolicy, c.wanted}, script.schedulingCalls()[0]));
}

INSTANTIATE_TEST_SUITE_P(Cases, ApplyPriorityTest,
                         ::testing::Values(ApplyCase{SCHED_OTHER, 0, false, 0, false, 0},
                                           ApplyCase{SCHED_RR, 5, false, 5, false, 0},
                                           ApplyCase{SCHED_OTHER, 0, false, 5, true, SCHED_RR},
                                           ApplyCase{SCHED_FIFO, 5, false, 5, true, SCHED_RR},
                                           ApplyCase{SCHED_OTHER, 0, false, -1, true, SCHED_OTHER},
                                           ApplyCase{SCHED_RR, 5, true, 0, true, SCHED_OTHER}));

TEST(PriorityTest, SetPriorityOfAThreadNotRunningOnlyStoresIt)
{
    TestThread object("MEAS", 3);
    interpose::Script script;
    EXPECT_EQ(3, object.setPriority(7));
    EXPECT_EQ(7, object.setPriority(0));
    EXPECT_TRUE(script.schedulingCalls().empty());
}

TEST(PriorityTest, SetPriorityOfARunningThreadAppliesIt)
{
    TestThread object("MEAS", 3);
    object.setHandle(pthread_self());
    {
        interpose::Script script;
        script.setScheduling(SCHED_OTHER, 0);
        EXPECT_EQ(0, object.setPriority(4)) << "the thread's priority before the change";
        ASSERT_EQ(1u, script.schedulingCalls().size());
        EXPECT_TRUE(sameCall({pthread_self(), SCHED_RR, 4}, script.schedulingCalls()[0]));
    }
    object.setHandle(0);
    interpose::Script script;
    EXPECT_EQ(4, object.setPriority(1)) << "the stored priority once it is not running";
    EXPECT_TRUE(script.schedulingCalls().empty());
}

// ---- small helpers -----------------------------------------------------------------------

TEST(ThreadHelpersTest, AbsoluteTimeAddsWholeSecondsToTheWallClock)
{
    interpose::Script script;
    script.setWallClock(timeval{100, 250000});
    timespec result{};
    Thread::absoluteTime(result, 5);
    EXPECT_EQ(105, result.tv_sec);
    EXPECT_EQ(250000000, result.tv_nsec);
    Thread::absoluteTime(result, -3);
    EXPECT_EQ(97, result.tv_sec);
}

}  // namespace
