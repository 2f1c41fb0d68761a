// SPDX-License-Identifier: MIT
// Termination signals during a flash operation: the run ends within about a
// second with line 48 back at 1, an ERROR record naming the signal, one line
// on standard error and exit status 128 + the signal. A closed standard
// output does not end a run.

#include "E2eSupport.h"

#include <sys/stat.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>

using namespace boardtest;

namespace {

enum class Point {
    kEraseWait,    // status polls after the chip erase (injected signal)
    kProgramming,  // page programming (injected)
    kReadOut,      // reading the firmware area (injected)
    kFifoOpen,     // open of a FIFO image nobody writes to (real kill)
    kFifoRead,     // read of a FIFO whose writer stays silent: Qt restarts the
                   // read after the signal, so the one-second fallback acts
};

struct Interruption {
    const char* name;
    int signal;
    const char* signalName;
    Point point;
};

constexpr int IMAGE_PAGES = 64;
// Real time a run may take from the signal to its end: the target is about
// a second, the bound leaves room for a loaded machine.
constexpr auto EXIT_BOUND = std::chrono::seconds(5);

class Interrupted : public ::testing::TestWithParam<Interruption> {
protected:
    void SetUp() override
    {
        m_board.setFlash(m_original);
        writeFile(m_board.path("image.bin"), m_image);
    }

    // Interrupts the operation at the point; a real kill comes once the
    // second hold of line 48 (the programming's, right before it opens the
    // image) was seen.
    RunResult interrupt(int signal, Point point) const
    {
        const std::int64_t at = point == Point::kProgramming ? programMessageIndex(10) : 100;
        const RunSettings injected{{"--signal", std::to_string(signal) + "@msg:" + std::to_string(at)}, {}};
        if (point == Point::kReadOut) {
            return m_board.merivak({"read", "out.bin"}, injected);
        }
        if (point != Point::kFifoOpen && point != Point::kFifoRead) {
            return m_board.merivak({"write", "image.bin"}, injected);
        }
        const std::string fifo = m_board.path("image.fifo");
        EXPECT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
        // A writer that never writes lets the open through; the read blocks.
        const int silentWriter = point == Point::kFifoRead ? ::open(fifo.c_str(), O_RDWR | O_NONBLOCK) : -1;
        RunningProgram program = m_board.startMerivak({"write", "image.fifo"});
        EXPECT_TRUE(waitForHolds(program, 2));
        const auto signalled = std::chrono::steady_clock::now();
        ::kill(program.pid(), signal);
        RunResult run = program.finish();
        EXPECT_LT(std::chrono::steady_clock::now() - signalled, EXIT_BOUND);
        ::close(silentWriter);
        return run;
    }

    SimulatedBoard m_board;
    const Bytes m_original = patternBytes(FLASH_CAPACITY, 31);
    const Bytes m_image = patternBytes(IMAGE_PAGES * 256, 32);
};

TEST_P(Interrupted, ReleasesLine48LogsTheSignalAndExitsWith128PlusIt)
{
    const Interruption& row = GetParam();
    const RunResult run = interrupt(row.signal, row.point);

    EXPECT_EQ(run.status, 128 + row.signal) << run.describe();
    EXPECT_EQ(run.err, std::string("merivak: operation interrupted by ") + row.signalName + "\n");
    EXPECT_TRUE(run.plainOutLines().empty()) << "no waiting line, no DSP start pause\n" << run.describe();
    const std::vector<std::string> errors = run.logRecords("ERROR");
    ASSERT_EQ(errors.size(), 1U) << run.describe();
    const std::string named = ": interrupted by signal " + std::to_string(row.signal) + " (" + row.signalName + ")";
    EXPECT_EQ(errors[0].substr(errors[0].find(':')), named);
    expectDspHeldOffDuringTransfersAndReleased(run);

    const std::vector<QJsonObject> injected = run.events("signal");
    const Bytes flash = m_board.flash();
    if (row.point == Point::kFifoOpen || row.point == Point::kFifoRead) {
        EXPECT_TRUE(injected.empty());
        EXPECT_EQ(flash, Bytes(FLASH_CAPACITY, 0xFF)) << "erased, nothing programmed";
        return;
    }
    // The message that was on its way when the signal came is the last one.
    ASSERT_EQ(injected.size(), 1U);
    const std::int64_t at = integer(injected[0].value(QStringLiteral("index")));
    ASSERT_EQ(run.spiMessages().size(), static_cast<std::size_t>(at));
    EXPECT_EQ(integer(run.spiMessages().back().value(QStringLiteral("index"))), at);
    // Stopped within a second of board time, not after the erase's waits.
    EXPECT_LT(run.boardTimeNs() - integer(injected[0].value(QStringLiteral("t"))), 1000000000LL) << run.describe();
    if (row.point == Point::kReadOut) {
        EXPECT_FALSE(fileExists(m_board.path("out.bin"))) << "a read-out that was stopped writes no file";
        EXPECT_EQ(flash, m_original);
    } else {
        EXPECT_EQ(run.logRecords("INFO", "Start programming").size(), row.point == Point::kProgramming ? 1U : 0U);
        EXPECT_NE(flash, m_original) << "erased";
        EXPECT_NE(Bytes(flash.begin(), flash.begin() + IMAGE_PAGES * 256), m_image) << "not programmed whole";
    }
}

// Each point once, each signal at least once; the one-second fallback
// looks the signal up anew, so it sees each signal.
INSTANTIATE_TEST_SUITE_P(Points, Interrupted,
                         ::testing::Values(Interruption{"IntEraseWait", SIGINT, "SIGINT", Point::kEraseWait},
                                           Interruption{"TermProgramming", SIGTERM, "SIGTERM", Point::kProgramming},
                                           Interruption{"HupReadOut", SIGHUP, "SIGHUP", Point::kReadOut},
                                           Interruption{"QuitFifoOpen", SIGQUIT, "SIGQUIT", Point::kFifoOpen},
                                           Interruption{"IntFifoRead", SIGINT, "SIGINT", Point::kFifoRead},
                                           Interruption{"TermFifoRead", SIGTERM, "SIGTERM", Point::kFifoRead},
                                           Interruption{"HupFifoRead", SIGHUP, "SIGHUP", Point::kFifoRead},
                                           Interruption{"QuitFifoRead", SIGQUIT, "SIGQUIT", Point::kFifoRead}),
                         [](const ::testing::TestParamInfo<Interruption>& row) { return std::string(row.param.name); });

// The tool ignores SIGPIPE: its log file keeps every record.
TEST(BrokenStandardOutput, DoesNotEndASuccessfulWrite)
{
    const SimulatedBoard board;
    Bytes image = patternBytes(1000, 33);
    writeFile(board.path("image.bin"), image);
    RunSettings settings;
    settings.brokenStandardOutput = true;

    const RunResult run = board.merivak({"write", "image.bin"}, settings);

    EXPECT_EQ(run.status, 0) << run.describe();
    EXPECT_EQ(run.logRecords("INFO", "Start programming the DSP Flash... 1000 bytes! ").size(), 1U) << run.describe();
    image.resize(FLASH_CAPACITY, 0xFF);
    EXPECT_EQ(board.flash(), image);
    expectDspHeldOffDuringTransfersAndReleased(run);
}

}  // namespace
