// SPDX-License-Identifier: MIT
#include "LockingHelpers.h"
#include "thread/Lock.h"
#include "thread/Mutex.h"
#include "thread/Thread.h"
#include "thread/ThreadLogger.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using thread::ThreadLogger;

TEST(ThreadLoggerTest, ExtraOperationsAlwaysSucceed)
{
    ThreadLogger logger;
    EXPECT_TRUE(logger.open());
    EXPECT_TRUE(logger.close());
    EXPECT_TRUE(logger.close());
    EXPECT_TRUE(logger.open());
}

TEST(ThreadLoggerTest, ClassDataIsOneObjectForAllThreads)
{
    thread::Lockable* lockElsewhere = nullptr;
    ThreadLogger::THREAD_MAP* mapElsewhere = nullptr;
    std::thread other([&] {
        lockElsewhere = &ThreadLogger::getClassLock();
        mapElsewhere = &ThreadLogger::getThreadByScope();
    });
    other.join();
    EXPECT_EQ(&ThreadLogger::getClassLock(), lockElsewhere);
    EXPECT_EQ(&ThreadLogger::getThreadByScope(), mapElsewhere);
    EXPECT_NE(nullptr, dynamic_cast<thread::Mutex*>(lockElsewhere));
}

TEST(ThreadLoggerTest, ClassLockIsIndependentOfThreadsClassLock)
{
    ForeignHolder holder(thread::Thread::getClassLock());
    ASSERT_TRUE(ThreadLogger::getClassLock().tryLock());
    ThreadLogger::getClassLock().unlock();
    holder.release();

    ForeignHolder loggerHolder(ThreadLogger::getClassLock());
    ASSERT_TRUE(thread::Thread::getClassLock().tryLock());
    thread::Thread::getClassLock().unlock();
}

TEST(ThreadLoggerTest, ScopeMapIsKeyedByTheScopeNameText)
{
    thread::Lock guard(ThreadLogger::getClassLock());
    ThreadLogger::THREAD_MAP& map = ThreadLogger::getThreadByScope();
    map.clear();
    char scopeCopy[] = "MEAS";
    map[thread::Thread::SCOPE_NAMES[3]].insert(pthread_self());
    map[scopeCopy].insert(static_cast<pthread_t>(77));
    map[thread::Thread::EXTERNAL_SCOPE].insert(static_cast<pthread_t>(5));
    ASSERT_EQ(2u, map.size()) << "the same name from two places is one scope";
    EXPECT_EQ(2u, map["MEAS"].size());
    EXPECT_EQ("EXTERNAL", map.begin()->first) << "ordered by name";
    map.clear();
}

}  // namespace
