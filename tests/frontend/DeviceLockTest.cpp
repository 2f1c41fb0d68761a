// SPDX-License-Identifier: MIT
// The per-device lock: one name per device, and acquired / busy /
// unavailable as flock and the lock folder decide.

#include "DeviceLock.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

using frontend::DeviceLock;

namespace {

struct NameCase {
    std::string device;
    std::string lockFile;
};

class LockFileName : public ::testing::TestWithParam<NameCase> {};

TEST_P(LockFileName, KeepsSafeBytesAndWritesEveryOtherAsHex)
{
    EXPECT_EQ(DeviceLock::lockFileName(GetParam().device), GetParam().lockFile);
}

INSTANTIATE_TEST_SUITE_P(Devices, LockFileName,
                         ::testing::Values(NameCase{"/dev/spidev0.0", "merivak-_2Fdev_2Fspidev0.0.lock"},
                                           NameCase{"", "merivak-.lock"}, NameCase{"AZaz09.-", "merivak-AZaz09.-.lock"},
                                           // The escape character itself is escaped: "_2F" and "/" differ.
                                           NameCase{"_2F", "merivak-_5F2F.lock"},
                                           NameCase{"@[`{ /:\xff", "merivak-_40_5B_60_7B_20_2F_3A_FF.lock"}));

class DeviceLockFolder : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/merivak-lock-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        m_folder = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(m_folder); }

    std::string m_folder;
};

TEST_F(DeviceLockFolder, SecondLockOnTheSameDeviceIsBusyAndNamesTheHolder)
{
    const DeviceLock first("/dev/spidev0.0", m_folder);
    ASSERT_EQ(first.state(), DeviceLock::State::kAcquired) << first.reason();
    const DeviceLock otherDevice("/dev/spidev1.0", m_folder);
    EXPECT_EQ(otherDevice.state(), DeviceLock::State::kAcquired);

    const DeviceLock second("/dev/spidev0.0", m_folder);
    EXPECT_EQ(second.state(), DeviceLock::State::kBusy);
    EXPECT_EQ(second.holderPid(), ::getpid());
}

TEST_F(DeviceLockFolder, LockIsFreeAgainOnceItsHolderIsGone)
{
    {
        const DeviceLock first("/dev/spidev0.0", m_folder);
    }
    const DeviceLock again("/dev/spidev0.0", m_folder);
    EXPECT_EQ(again.state(), DeviceLock::State::kAcquired);
}

TEST_F(DeviceLockFolder, MissingFolderMakesTheLockUnavailableWithAReason)
{
    const DeviceLock lock("/dev/spidev0.0", m_folder + "/missing");
    EXPECT_EQ(lock.state(), DeviceLock::State::kUnavailable);
    EXPECT_EQ(lock.reason(),
              "open " + m_folder + "/missing/merivak-_2Fdev_2Fspidev0.0.lock: No such file or directory");
}

}  // namespace
