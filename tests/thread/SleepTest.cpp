// SPDX-License-Identifier: MIT
#include "LibcInterposers.h"
#include "ThreadTestSupport.h"
#include "thread/Sleep.h"
#include "thread/TimeValue.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

timespec at(long seconds, long nanoseconds)
{
    timespec time{};
    time.tv_sec = seconds;
    time.tv_nsec = nanoseconds;
    return time;
}

// The request that sleepMicroseconds hands to nanosleep (which is scripted
// to succeed at once).
timespec requestFor(unsigned microseconds)
{
    interpose::Script script;
    script.scriptSleeps({{0, 0, {}}});
    EXPECT_EQ(0, thread::sleepMicroseconds(microseconds));
    EXPECT_EQ(1u, script.sleepRequests().size());
    return script.sleepRequests().empty() ? timespec{-1, -1} : script.sleepRequests()[0];
}

void expectRequest(long seconds, long nanoseconds, unsigned microseconds)
{
    const timespec request = requestFor(microseconds);
    EXPECT_EQ(seconds, request.tv_sec) << "for " << microseconds << " us";
    EXPECT_EQ(nanoseconds, request.tv_nsec) << "for " << microseconds << " us";
}

TEST(SleepMicrosecondsTest, SplitsTheRequestIntoSecondsAndNanoseconds)
{
    expectRequest(0, 0, 0);
    expectRequest(0, 1000, 1);
    expectRequest(0, 999999000, 999999);
    expectRequest(1, 0, 1000000);
    expectRequest(2, 500000000, 2500000);
    expectRequest(4294, 967295000, 4294967295u);
}

TEST(SleepMicrosecondsTest, GoesOnWithTheRemainingTimeAfterEachInterruption)
{
    interpose::Script script;
    script.scriptSleeps({{-1, EINTR, at(0, 123000)}, {-1, EINTR, at(1, 5)}, {0, 0, {}}});
    EXPECT_EQ(0, thread::sleepMicroseconds(500000));
    const std::vector<timespec>& requests = script.sleepRequests();
    ASSERT_EQ(3u, requests.size());
    EXPECT_EQ(0, requests[0].tv_sec);
    EXPECT_EQ(500000000, requests[0].tv_nsec);
    EXPECT_EQ(0, requests[1].tv_sec);
    EXPECT_EQ(123000, requests[1].tv_nsec);
    EXPECT_EQ(1, requests[2].tv_sec);
    EXPECT_EQ(5, requests[2].tv_nsec);
}

TEST(SleepMicrosecondsTest, OtherFailuresEndTheSleep)
{
    interpose::Script script;
    script.scriptSleeps({{-1, EINTR, at(0, 700)}, {-1, EINVAL, {}}, {0, 0, {}}});
    EXPECT_EQ(-1, thread::sleepMicroseconds(10));
    EXPECT_EQ(2u, script.sleepRequests().size());
}

// A thread that sleeps in its own Thread::sleep while another thread keeps
// interrupting it still sleeps the full time.
TEST(SleepMicrosecondsTest, InterruptsFromAnotherThreadDoNotShortenTheSleep)
{
    constexpr unsigned SLEEP_MICROSECONDS = 8000;
    TestThread object("LOOP");
    int attemptsWithAnInterruption = 0;
    for (int attempt = 0; attempt < 10 && attemptsWithAnInterruption == 0; ++attempt) {
        const int interruptedBefore = interpose::interruptedSleeps();
        std::atomic<bool> registered{false};
        std::atomic<bool> done{false};
        bool slept = false;
        double elapsed = 0.0;
        std::thread sleeper([&] {
            object.setHandle(pthread_self());
            registered.store(true);
            const double start = thread::TimeValue::getSeconds(CLOCK_MONOTONIC);
            slept = object.sleep(SLEEP_MICROSECONDS);
            elapsed = thread::TimeValue::getSeconds(CLOCK_MONOTONIC) - start;
            object.setHandle(0);
            done.store(true);
        });
        while (!registered.load()) {
            std::this_thread::yield();
        }
        while (!done.load()) {
            object.interrupt();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        sleeper.join();
        EXPECT_TRUE(slept);
        EXPECT_GE(elapsed, SLEEP_MICROSECONDS / 1.0e6) << "the sleep was cut short";
        if (interpose::interruptedSleeps() > interruptedBefore) {
            ++attemptsWithAnInterruption;
        }
    }
    EXPECT_EQ(1, attemptsWithAnInterruption) << "no interrupt ever reached the sleeping thread";
}

}  // namespace
