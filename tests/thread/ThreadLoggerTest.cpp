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

}  // namespace
