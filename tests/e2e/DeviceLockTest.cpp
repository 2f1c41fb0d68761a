// SPDX-License-Identifier: MIT
// One run per SPI device: a second run on the same board is refused before
// it touches the hardware, while the first goes on unharmed; runs on other
// boards are not held up; without a lock folder the run goes on unlocked.

#include "E2eSupport.h"

#include <sys/stat.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

using namespace boardtest;

namespace {

enum class Second { kSameBoard, kOtherBoard };

// Polls until the running program's trace shows event ev; false on timeout.
bool waitForEvent(const RunningProgram& program, const char* ev, std::size_t count)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
        std::size_t seen = 0;
        for (const QJsonObject& event : program.traceSoFar()) {
            seen += text(event.value(QStringLiteral("ev"))) == ev &&
                    (std::string(ev) != "gpio_write" || text(event.value(QStringLiteral("data"))) == "0");
        }
        if (seen >= count) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

class TwoRuns : public ::testing::TestWithParam<Second> {};

TEST_P(TwoRuns, SecondRunIsRefusedOnlyOnTheBoardInUse)
{
    const SimulatedBoard first;
    const SimulatedBoard other;
    const Bytes image = patternBytes(3 * 256 + 17, 41);
    const Bytes secondImage = patternBytes(300, 42);
    writeFile(first.path("second.bin"), secondImage);
    writeFile(other.path("second.bin"), secondImage);
    const std::string fifo = first.path("image.fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);

    // The first run erases, then waits in the open of its image until the
    // test feeds it: the second run comes in between.
    RunningProgram running = first.startMerivak({"write", "image.fifo"});
    ASSERT_TRUE(waitForEvent(running, "gpio_write", 2));
    std::string firstPid;
    for (const QJsonObject& event : running.traceSoFar()) {
        if (text(event.value(QStringLiteral("ev"))) == "process_start") {
            firstPid = text(event.value(QStringLiteral("pid")));
        }
    }

    const bool sameBoard = GetParam() == Second::kSameBoard;
    const RunResult second = (sameBoard ? first : other).merivak({"write", "second.bin"});

    const int writer = ::open(fifo.c_str(), O_WRONLY);
    ASSERT_GE(writer, 0);
    ASSERT_EQ(::write(writer, image.data(), image.size()), static_cast<ssize_t>(image.size()));
    ::close(writer);
    const RunResult firstRun = running.finish();

    expectSuccessfulRun(firstRun);
    if (sameBoard) {
        EXPECT_EQ(second.status, 1) << second.describe();
        EXPECT_EQ(second.err,
                  "merivak: /dev/spidev0.0 is in use by another run (process " + firstPid + "); nothing done\n");
        EXPECT_TRUE(second.out.empty()) << second.describe();
        expectHardwareUntouched(second);
    } else {
        expectSuccessfulRun(second);
        Bytes expectedOther = secondImage;
        expectedOther.resize(FLASH_CAPACITY, 0xFF);
        EXPECT_EQ(other.flash(), expectedOther);
    }
    Bytes expected = image;
    expected.resize(FLASH_CAPACITY, 0xFF);
    EXPECT_EQ(first.flash(), expected) << "the first run's image, whole";
    EXPECT_EQ(firstRun.lineLevels(48).back().second, 1);
}

INSTANTIATE_TEST_SUITE_P(Boards, TwoRuns, ::testing::Values(Second::kSameBoard, Second::kOtherBoard),
                         [](const ::testing::TestParamInfo<Second>& row) {
                             return std::string(row.param == Second::kSameBoard ? "SameBoard" : "OtherBoard");
                         });

// Where no lock file can be opened (here a folder stands in its place) the
// run says so and goes on as it always did.
TEST(DeviceLock, WithoutALockFolderTheRunGoesOnAndSaysSo)
{
    const SimulatedBoard board;
    board.prepare();
    std::filesystem::create_directory(board.stateFolder() + "/run-lock/merivak-_2Fdev_2Fspidev0.0.lock");
    writeFile(board.path("image.bin"), patternBytes(256, 43));

    const RunResult run = board.merivak({"write", "image.bin"});

    EXPECT_EQ(run.status, 0) << run.describe();
    EXPECT_EQ(run.err, "merivak: going on without the device lock: open /run/lock/merivak-_2Fdev_2Fspidev0.0.lock: "
                       "Is a directory\n");
    EXPECT_EQ(run.plainOutLines(), std::vector<std::string>{"Waiting till DSP is started..."});
    expectDspHeldOffDuringTransfersAndReleased(run);
    EXPECT_EQ(run.logRecords("INFO", "Start programming").size(), 1U);
}

}  // namespace
