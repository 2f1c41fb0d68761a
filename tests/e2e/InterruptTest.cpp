// SPDX-License-Identifier: MIT
// Termination signals during a flash operation: the run ends within about a
// second with line 48 back at 1, an ERROR record naming the signal, one line
// on standard error and exit status 128 + the signal.

#include "E2eSupport.h"

#include <sys/stat.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <tuple>

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

const char* pointName(Point point)
{
    switch (point) {
    case Point::kEraseWait:
        return "EraseWait";
    case Point::kProgramming:
        return "Programming";
    case Point::kReadOut:
        return "ReadOut";
    case Point::kFifoOpen:
        return "FifoOpen";
    case Point::kFifoRead:
        return "FifoRead";
    }
    return "?";
}

const char* signalName(int signal)
{
    switch (signal) {
    case SIGINT:
        return "SIGINT";
    case SIGTERM:
        return "SIGTERM";
    case SIGHUP:
        return "SIGHUP";
    default:
        return "SIGQUIT";
    }
}

constexpr int IMAGE_PAGES = 64;
constexpr std::int64_t SIGNAL_AT_MESSAGE = 100;
// Real time a run may take from the signal to its end: the target is about
// a second, the bound leaves room for a loaded machine.
constexpr auto EXIT_BOUND = std::chrono::seconds(5);

// SPI messages of a write of an empty image: the erase and its status polls.
std::int64_t eraseMessageCount()
{
    static const std::int64_t count = [] {
        const SimulatedBoard board;
        writeFile(board.path("empty.bin"), Bytes{});
        return static_cast<std::int64_t>(board.merivak({"write", "empty.bin"}).spiMessages().size());
    }();
    return count;
}

// Polls the running program's trace until line 48 was set to 0 `holds`
// times; false when it does not get there in time.
bool waitForHolds(const RunningProgram& program, std::size_t holds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
        std::size_t seen = 0;
        for (const QJsonObject& event : program.traceSoFar()) {
            seen += text(event.value(QStringLiteral("ev"))) == "gpio_write" &&
                    text(event.value(QStringLiteral("path"))) == "gpio48/value" &&
                    text(event.value(QStringLiteral("data"))) == "0";
        }
        if (seen >= holds) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

class Interruption : public ::testing::TestWithParam<std::tuple<int, Point>> {
protected:
    void SetUp() override
    {
        m_original = patternBytes(FLASH_CAPACITY, 31);
        m_board.setFlash(m_original);
        m_image = patternBytes(IMAGE_PAGES * 256, 32);
        writeFile(m_board.path("image.bin"), m_image);
    }

    // Runs the operation and interrupts it at point; also measures the real
    // time from the signal to the end of the run (real kills only).
    RunResult interrupt(int signal, Point point, std::chrono::steady_clock::duration& afterSignal) const
    {
        afterSignal = {};
        RunSettings settings;
        const std::string injected = std::to_string(signal) + "@msg:";
        switch (point) {
        case Point::kEraseWait:
            settings.simulatorOptions = {"--signal", injected + std::to_string(SIGNAL_AT_MESSAGE)};
            return m_board.merivak({"write", "image.bin"}, settings);
        case Point::kProgramming:
            settings.simulatorOptions = {"--signal", injected + std::to_string(eraseMessageCount() + 20)};
            return m_board.merivak({"write", "image.bin"}, settings);
        case Point::kReadOut:
            settings.simulatorOptions = {"--signal", injected + std::to_string(SIGNAL_AT_MESSAGE)};
            return m_board.merivak({"read", "out.bin"}, settings);
        case Point::kFifoOpen:
        case Point::kFifoRead:
            break;
        }
        const std::string fifo = m_board.path("image.fifo");
        EXPECT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
        // A writer that never writes lets the open through; the read blocks.
        const int silentWriter = point == Point::kFifoRead ? ::open(fifo.c_str(), O_RDWR | O_NONBLOCK) : -1;
        RunningProgram program = m_board.startMerivak({"write", "image.fifo"});
        // The second hold of line 48 is the programming's, right before it
        // opens the image.
        EXPECT_TRUE(waitForHolds(program, 2));
        const auto signalled = std::chrono::steady_clock::now();
        ::kill(program.pid(), signal);
        RunResult run = program.finish();
        afterSignal = std::chrono::steady_clock::now() - signalled;
        if (silentWriter >= 0) {
            ::close(silentWriter);
        }
        return run;
    }

    SimulatedBoard m_board;
    Bytes m_original;
    Bytes m_image;
};

TEST_P(Interruption, ReleasesLine48LogsTheSignalAndExitsWith128PlusIt)
{
    const auto [signal, point] = GetParam();
    std::chrono::steady_clock::duration afterSignal{};
    const RunResult run = interrupt(signal, point, afterSignal);

    EXPECT_EQ(run.status, 128 + signal) << run.describe();
    EXPECT_EQ(run.err, std::string("merivak: operation interrupted by ") + signalName(signal) + "\n");
    EXPECT_TRUE(run.plainOutLines().empty()) << "no waiting line, no DSP start pause\n" << run.describe();
    const std::vector<std::string> errors = run.logRecords("ERROR");
    ASSERT_EQ(errors.size(), 1U) << run.describe();
    const std::string named = ": interrupted by signal " + std::to_string(signal) + " (" + signalName(signal) + ")";
    EXPECT_EQ(errors[0].substr(errors[0].find(':')), named);
    expectDspHeldOffDuringTransfersAndReleased(run);
    EXPECT_LT(afterSignal, EXIT_BOUND);

    const std::vector<QJsonObject> injected = run.events("signal");
    if (point == Point::kFifoOpen || point == Point::kFifoRead) {
        EXPECT_TRUE(injected.empty());
        EXPECT_EQ(m_board.flash(), Bytes(FLASH_CAPACITY, 0xFF)) << "erased, nothing programmed";
        return;
    }
    // The message that was on its way when the signal came is the last one.
    ASSERT_EQ(injected.size(), 1U);
    const std::int64_t at = integer(injected[0].value(QStringLiteral("index")));
    ASSERT_FALSE(run.spiMessages().empty());
    EXPECT_EQ(integer(run.spiMessages().back().value(QStringLiteral("index"))), at);
    EXPECT_EQ(run.spiMessages().size(), static_cast<std::size_t>(at));
    // Stopped within a second of board time, not after the erase's waits.
    EXPECT_LT(run.boardTimeNs() - integer(injected[0].value(QStringLiteral("t"))), 1000000000LL) << run.describe();
    if (point == Point::kReadOut) {
        EXPECT_FALSE(fileExists(m_board.path("out.bin"))) << "a read-out that was stopped writes no file";
    } else {
        EXPECT_TRUE(run.logRecords("INFO", "Start programming").size() == (point == Point::kProgramming ? 1U : 0U));
        const Bytes flash = m_board.flash();
        EXPECT_NE(flash, m_original) << "erased";
        EXPECT_NE(Bytes(flash.begin(), flash.begin() + IMAGE_PAGES * 256), m_image) << "not programmed whole";
    }
}

INSTANTIATE_TEST_SUITE_P(SignalsAndPoints, Interruption,
                         ::testing::Combine(::testing::Values(SIGINT, SIGTERM, SIGHUP, SIGQUIT),
                                            ::testing::Values(Point::kEraseWait, Point::kProgramming, Point::kReadOut,
                                                              Point::kFifoOpen, Point::kFifoRead)),
                         [](const ::testing::TestParamInfo<std::tuple<int, Point>>& row) {
                             return std::string(signalName(std::get<0>(row.param)) + 3) +
                                    pointName(std::get<1>(row.param));
                         });

}  // namespace

namespace {

// A closed standard output does not kill a run that succeeded: the tool
// ignores SIGPIPE, its log file keeps every record.
TEST(BrokenStandardOutput, DoesNotEndASuccessfulWrite)
{
    const SimulatedBoard board;
    const Bytes image = patternBytes(1000, 33);
    writeFile(board.path("image.bin"), image);
    RunSettings settings;
    settings.brokenStandardOutput = true;

    const RunResult run = board.merivak({"write", "image.bin"}, settings);

    EXPECT_EQ(run.status, 0) << run.describe();
    EXPECT_EQ(run.logRecords("INFO", "Start programming the DSP Flash... 1000 bytes! ").size(), 1U) << run.describe();
    Bytes flash = image;
    flash.resize(FLASH_CAPACITY, 0xFF);
    EXPECT_EQ(board.flash(), flash);
    expectDspHeldOffDuringTransfersAndReleased(run);
}

}  // namespace
