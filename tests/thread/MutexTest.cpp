// SPDX-License-Identifier: MIT
#include "LockingHelpers.h"
#include "thread/Mutex.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(MutexTest, OwnerMayLockAgainAndOthersWaitForEveryUnlock)
{
    thread::Mutex mutex(false);
    ASSERT_TRUE(mutex.lock());
    ASSERT_TRUE(mutex.lock());
    EXPECT_FALSE(tryLockFromAnotherThread(mutex));
    EXPECT_EQ(0, mutex.unlock());
    EXPECT_FALSE(tryLockFromAnotherThread(mutex)) << "free after one of two unlocks";
    EXPECT_EQ(0, mutex.unlock());
    EXPECT_TRUE(tryLockFromAnotherThread(mutex));
}

TEST(MutexTest, TryLockByOwnerNestsLikeLock)
{
    thread::Mutex mutex(false);
    ASSERT_TRUE(mutex.tryLock());
    ASSERT_TRUE(mutex.tryLock());
    EXPECT_EQ(0, mutex.unlock());
    EXPECT_FALSE(tryLockFromAnotherThread(mutex));
    EXPECT_EQ(0, mutex.unlock());
    EXPECT_TRUE(tryLockFromAnotherThread(mutex));
}

TEST(MutexTest, TryLockOnMutexHeldElsewhereFailsWithoutWaiting)
{
    thread::Mutex mutex(false);
    ForeignHolder holder(mutex);
    // Would block forever (until the holder lets go) if it waited.
    EXPECT_FALSE(mutex.tryLock());
    EXPECT_FALSE(mutex.tryLock());
    holder.release();
    ASSERT_TRUE(mutex.tryLock());
    mutex.unlock();
}

TEST(MutexTest, LockBlocksUntilTheHolderReleases)
{
    thread::Mutex mutex(false);
    int shared = 0;
    ASSERT_TRUE(mutex.lock());
    std::thread writer([&] {
        mutex.lock();
        shared = 2;
        mutex.unlock();
    });
    shared = 1;  // the writer cannot be in its critical section yet
    mutex.unlock();
    writer.join();
    EXPECT_EQ(2, shared);
}

}  // namespace
