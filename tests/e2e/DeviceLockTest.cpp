// SPDX-License-Identifier: MIT
// One run per SPI device: a second run on the same board is refused before
// it touches the hardware, while the first goes on unharmed; runs on other
// boards are not held up; without a lock file the run goes on unlocked.

#include "E2eSupport.h"

#include <sys/stat.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <string>

using namespace boardtest;

namespace {

Bytes onErasedFlash(Bytes image)
{
    image.resize(FLASH_CAPACITY, 0xFF);
    return image;
}

class TwoRuns : public ::testing::TestWithParam<bool> {};

TEST_P(TwoRuns, SecondRunIsRefusedOnlyOnTheBoardInUse)
{
    const bool sameBoard = GetParam();
    const SimulatedBoard first;
    const SimulatedBoard other;
    const SimulatedBoard& secondBoard = sameBoard ? first : other;
    const Bytes image = patternBytes(3 * 256 + 17, 41);
    const Bytes secondImage = patternBytes(300, 42);
    writeFile(secondBoard.path("second.bin"), secondImage);
    const std::string fifo = first.path("image.fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);

    // The first run erases, then waits in the open of its image until the
    // test feeds it: the second run comes in between.
    RunningProgram running = first.startMerivak({"write", "image.fifo"});
    ASSERT_TRUE(waitForHolds(running, 2));
    const std::string firstPid = text(running.traceSoFar()[1].value(QStringLiteral("pid")));
    const RunResult second = secondBoard.merivak({"write", "second.bin"});
    const int writer = ::open(fifo.c_str(), O_WRONLY);
    ASSERT_GE(writer, 0);
    ASSERT_EQ(::write(writer, image.data(), image.size()), static_cast<ssize_t>(image.size()));
    ::close(writer);
    const RunResult firstRun = running.finish();

    expectSuccessfulRun(firstRun);
    EXPECT_EQ(first.flash(), onErasedFlash(image)) << "the first run's image, whole";
    if (sameBoard) {
        EXPECT_EQ(second.status, 1) << second.describe();
        EXPECT_EQ(second.err,
                  "merivak: /dev/spidev0.0 is in use by another run (process " + firstPid + "); nothing done\n");
        EXPECT_EQ(second.out, "");
        expectHardwareUntouched(second);
    } else {
        expectSuccessfulRun(second);
        EXPECT_EQ(other.flash(), onErasedFlash(secondImage));
    }
}

INSTANTIATE_TEST_SUITE_P(Boards, TwoRuns, ::testing::Bool(), [](const ::testing::TestParamInfo<bool>& row) {
    return std::string(row.param ? "SameBoard" : "OtherBoard");
});

// Where no lock file can be opened (here a folder stands in its place) the
// run says so and goes on as it always did.
TEST(DeviceLock, WithoutALockFileTheRunGoesOnAndSaysSo)
{
    const SimulatedBoard board;
    board.prepare();
    std::filesystem::create_directory(board.stateFolder() + "/run-lock/merivak-_2Fdev_2Fspidev0.0.lock");
    const Bytes image = patternBytes(256, 43);
    writeFile(board.path("image.bin"), image);

    const RunResult run = board.merivak({"write", "image.bin"});

    EXPECT_EQ(run.status, 0) << run.describe();
    EXPECT_EQ(run.err, "merivak: going on without the device lock: open /run/lock/merivak-_2Fdev_2Fspidev0.0.lock: "
                       "Is a directory\n");
    EXPECT_EQ(run.plainOutLines(), std::vector<std::string>{"Waiting till DSP is started..."});
    expectDspHeldOffDuringTransfersAndReleased(run);
    EXPECT_EQ(board.flash(), onErasedFlash(image));
}

// A holder that has not written its pid yet is not named.
TEST(DeviceLock, HolderWithoutAPidIsNotNamed)
{
    const SimulatedBoard board;
    board.prepare();
    const std::string lockFile = board.stateFolder() + "/run-lock/merivak-_2Fdev_2Fspidev0.0.lock";
    const int holder = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(::flock(holder, LOCK_EX), 0);
    writeFile(board.path("image.bin"), patternBytes(256, 44));

    const RunResult run = board.merivak({"write", "image.bin"});
    ::close(holder);
    EXPECT_EQ(run.status, 1) << run.describe();
    EXPECT_EQ(run.err, "merivak: /dev/spidev0.0 is in use by another run; nothing done\n");
    expectHardwareUntouched(run);
}

}  // namespace
