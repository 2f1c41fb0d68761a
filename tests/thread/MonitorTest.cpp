// SPDX-License-Identifier: MIT
#include "LockingHelpers.h"
#include "thread/Lock.h"
#include "thread/Monitor.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

// A class guarded by itself, the way the board software uses Monitor.
class Account : public thread::Monitor {
public:
    Account() : Monitor(false) {}
    ~Account() override = default;

    void deposit(int amount)
    {
        thread::Lock guard(*this);
        m_balance += amount;
    }
    // Takes the guard and calls another guarded member with it held.
    void depositTwice(int amount)
    {
        thread::Lock guard(*this);
        deposit(amount);
        deposit(amount);
    }
    int balance()
    {
        thread::Lock guard(*this);
        return m_balance;
    }

private:
    int m_balance = 0;
};

TEST(MonitorTest, ObjectLockIsItsOwnMutex)
{
    Account account;
    ForeignHolder holder(account.getMutex());
    EXPECT_FALSE(account.tryLock()) << "the object's lock must act on its own mutex";
    holder.release();

    ForeignHolder objectHolder(account);
    EXPECT_FALSE(account.getMutex().tryLock());
}

TEST(MonitorTest, EachObjectHasItsOwnLock)
{
    Account first;
    Account second;
    ForeignHolder holder(first);
    EXPECT_TRUE(tryLockFromAnotherThread(second));
}

TEST(MonitorTest, GuardedMembersCallEachOtherAndExcludeOtherThreads)
{
    Account account;
    constexpr int ROUNDS = 2000;
    std::thread other([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            account.depositTwice(1);
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        account.depositTwice(1);
    }
    other.join();
    EXPECT_EQ(4 * ROUNDS, account.balance());
}

}  // namespace
