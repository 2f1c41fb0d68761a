// SPDX-License-Identifier: MIT
#include "LockingHelpers.h"
#include "thread/Lock.h"
#include "thread/Mutex.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Records the calls it receives, so the guard's use of its lockable shows.
class RecordingLockable : public thread::Lockable {
public:
    explicit RecordingLockable(bool lockSucceeds) : Lockable(false), m_lockSucceeds(lockSucceeds) {}
    ~RecordingLockable() override = default;
    bool lock() override
    {
        calls.push_back("lock");
        return m_lockSucceeds;
    }
    bool tryLock() override
    {
        calls.push_back("tryLock");
        return m_lockSucceeds;
    }
    int unlock() override
    {
        calls.push_back("unlock");
        return 0;
    }
    std::vector<std::string> calls;

private:
    bool m_lockSucceeds;
};

using Calls = std::vector<std::string>;

TEST(LockTest, LocksOnConstructionAndUnlocksAtScopeEnd)
{
    RecordingLockable lockable(true);
    {
        thread::Lock guard(lockable);
        EXPECT_EQ(Calls{"lock"}, lockable.calls);
    }
    EXPECT_EQ((Calls{"lock", "unlock"}), lockable.calls);
}

TEST(LockTest, GoesOnAsIfHeldWhenLockFails)
{
    RecordingLockable lockable(false);
    {
        thread::Lock guard(lockable);
    }
    EXPECT_EQ((Calls{"lock", "unlock"}), lockable.calls);
}

TEST(LockTest, SetTimeoutReturnsTheStoredValueAndZeroReadsAsAYear)
{
    const unsigned original = thread::Lock::setTimeout(20);
    EXPECT_EQ(20u, thread::Lock::getTimeout());
    EXPECT_EQ(20u, thread::Lock::setTimeout(0));
    EXPECT_EQ(31536000u, thread::Lock::getTimeout());
    EXPECT_EQ(0u, thread::Lock::setTimeout(1)) << "the stored 0, not the year read back";
    EXPECT_EQ(1u, thread::Lock::getTimeout());
    thread::Lock::setTimeout(original);
}

}  // namespace
