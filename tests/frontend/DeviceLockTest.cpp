// SPDX-License-Identifier: MIT
// The per-device lock: one name per device, and acquired / busy /
// unavailable as flock and the lock folder decide.

#include "DeviceLock.h"
#include "TempFolder.h"

#include <gtest/gtest.h>

#include <unistd.h>

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

// One lock folder: a second lock on a device is busy and names its holder,
// other devices are not held up, a lock is free again once its holder is
// gone, and a missing folder makes the lock unavailable with a reason.
TEST(DeviceLockFolder, LockIsAcquiredBusyOrUnavailable)
{
    const testsupport::TempFolder folder("merivak-lock");
    {
        const DeviceLock first("/dev/spidev0.0", folder.path());
        ASSERT_EQ(first.state(), DeviceLock::State::kAcquired) << first.reason();
        EXPECT_EQ(DeviceLock("/dev/spidev1.0", folder.path()).state(), DeviceLock::State::kAcquired);
        const DeviceLock second("/dev/spidev0.0", folder.path());
        EXPECT_EQ(second.state(), DeviceLock::State::kBusy);
        EXPECT_EQ(second.holderPid(), ::getpid());
    }
    EXPECT_EQ(DeviceLock("/dev/spidev0.0", folder.path()).state(), DeviceLock::State::kAcquired);
    const DeviceLock lock("/dev/spidev0.0", folder.path("missing"));
    EXPECT_EQ(lock.state(), DeviceLock::State::kUnavailable);
    EXPECT_EQ(lock.reason(),
              "open " + folder.path("missing") + "/merivak-_2Fdev_2Fspidev0.0.lock: No such file or directory");
}

}  // namespace
