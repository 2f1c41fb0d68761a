// SPDX-License-Identifier: MIT
// The launcher and the preload library together, with real programs: what
// only a fresh process shows (the interposed C library calls, processes of
// one run sharing the board, the launcher's exit status). The device models
// behind them are tested in-process.
#include "ChildProcess.h"
#include "RunResult.h"
#include "SimulatedBoard.h"

#include <gtest/gtest.h>

#include <QJsonObject>

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace boardsim_test {
namespace {

using boardtest::RunResult;
using boardtest::RunSettings;
using boardtest::text;

class ProcessTest : public ::testing::Test {
protected:
    // The client with its operations, given as one blank-separated text.
    RunResult client(const std::string& operations, const RunSettings& settings = {})
    {
        std::vector<std::string> command{BOARDSIM_CLIENT};
        std::istringstream words(operations);
        for (std::string word; words >> word;) {
            command.push_back(word);
        }
        return board.run(command, settings);
    }

    // The launcher without --quiet or a state folder of the board.
    testsupport::ProcessResult launch(std::vector<std::string> argv)
    {
        argv.insert(argv.begin(), BOARDSIM_LAUNCHER);
        testsupport::ProcessRequest request;
        request.argv = argv;
        request.timeoutSeconds = 120;
        return testsupport::runProcess(request);
    }

    boardtest::SimulatedBoard board;
};

// What an independent spidev programmer does: identify, program, fast read,
// block erase; the flash content outlives the run in the state folder.
TEST_F(ProcessTest, IndependentProgrammerWorksThroughTheRealCalls)
{
    const RunResult first =
        client("spi-open /dev/spidev0.0 spi-msg t:9f/r:3 spi-msg t:06,cs/t:02000100/t:c0ffee spi-msg t:05/r:1");
    EXPECT_EQ(first.out, "open ok\nmsg 4 ef4015\nmsg 8\nmsg 2 03\n") << first.err;  // busy with the latch
    const RunResult second = client(
        "spi-open /dev/spidev0.0 spi-msg t:0b00010000/r:4 spi-msg t:06,cs/t:d8000000 sleep 1 spi-msg t:03000100/r:3");
    EXPECT_EQ(second.out, "open ok\nmsg 9 c0ffeeff\nmsg 5\nmsg 7 ffffff\n") << second.err;
    EXPECT_EQ(second.summary.value("flash").toObject().value("block_erases").toInt(), 1);
    const boardtest::Bytes flash = board.flash();
    ASSERT_EQ(flash.size(), boardtest::FLASH_CAPACITY);
    EXPECT_EQ(boardtest::hex({flash[0x100], flash[0x101], flash[0x102]}), "ffffff");
}

TEST_F(ProcessTest, ProcessesOfOneRunShareTheBoardAndItsClock)
{
    const std::string script = std::string(BOARDSIM_CLIENT) + " sleep 2 spi-open /dev/spidev0.0 spi-msg t:06 && " +
                               BOARDSIM_CLIENT + " sleep 3 spi-open /dev/spidev0.0 spi-msg t:05/r:1";
    const RunResult run = board.run({"sh", "-c", script});
    ASSERT_EQ(run.status, 0) << run.describe();
    EXPECT_NE(run.out.find("msg 2 02"), std::string::npos) << run.out;  // the latch from the first process
    // The shell is a process of the run as well, when it can load the library.
    EXPECT_EQ(run.summary.value("processes").toInt(), BOARDSIM_SHELL_IS_FOREIGN ? 2 : 3);
    EXPECT_EQ(run.boardTimeNs(), 5000000000LL + 2 * 20000 + 400 * 3);
}

TEST_F(ProcessTest, SpidevServedAtAnotherPathAndDescriptorCallsWork)
{
    auto at = [&](const std::string& path) {
        return client("spi-open " + path + " spi-cloexec spi-dup spi-msg t:9f/r:3 spi-close",
                      {{"--spidev", "board-node"}, {}})
            .out;
    };
    // A relative --spidev path is the launcher's folder's, where the client
    // runs too.
    EXPECT_EQ(at("board-node"), "open ok\ncloexec 0\ndup ok\nmsg 4 ef4015\nclose 0\n");
    EXPECT_EQ(at(board.path("other-node")), "open ENOENT\ncloexec -1\ndup EBADF\nmsg -1 EBADF\nclose -1\n");
}

// Device nodes and GPIO paths exist for stat and access as on the board,
// until a fault (here from the environment) removes them; a message fault
// reaches the program as its errno.
TEST_F(ProcessTest, DeviceNodesGpioPathsAndFaultsAsTheProgramSeesThem)
{
    const RunResult run =
        client("stat /dev/spidev0.0 stat /dev/mldalm stat /sys/class/gpio/gpio48 stdio-write /sys/class/gpio/export 48 "
               "stat /sys/class/gpio/gpio48 stat /sys/class/gpio/gpio48/value");
    EXPECT_EQ(run.out, "stat chr 153 0\naccess ok\nstat chr 10 130\naccess ok\nstat ENOENT\naccess ENOENT\n"
                       "stdio ok\nstat dir\naccess ok\nstat file\naccess ok\n")
        << run.err;
    const RunResult faulty =
        client("stat /dev/mldalm stat /dev/spidev0.0 spi-open /dev/spidev0.0 spi-msg t:05/r:1 spi-msg t:05/r:1",
               {{}, {{"BOARDSIM_FAULTS", "msg:2:EREMOTEIO, no-melody"}}});
    EXPECT_EQ(faulty.out,
              "stat ENOENT\naccess ENOENT\nstat chr 153 0\naccess ok\nopen ok\nmsg 2 00\nmsg -1 EREMOTEIO\n")
        << faulty.err;
    EXPECT_EQ(client("stat /dev/spidev0.0", {{"--fault", "no-spidev"}, {}}).out, "stat ENOENT\naccess ENOENT\n");
}

TEST_F(ProcessTest, FortifiedEntryPointsReachTheSimulator)
{
    const RunResult run = board.run({BOARDSIM_FORTIFIED_CLIENT, "49"});
    EXPECT_EQ(run.out, "read 2 0 poll 0 ppoll 0\n") << run.err;
    EXPECT_EQ(run.events("gpio_open").size(), 2U);  // export and value (through the folder)
    EXPECT_EQ(run.events("gpio_read").size(), 1U);
}

// Every kind of sleep on the main thread moves the board clock instead of
// waiting; other threads sleep for real and leave the clock alone.
TEST_F(ProcessTest, MainThreadSleepsAndPollsAreVirtualOtherThreadsSleepForReal)
{
    const auto before = std::chrono::steady_clock::now();
    const RunResult run = client(
        "stdio-write /sys/class/gpio/export 2 stdio-write /sys/class/gpio/gpio2/edge rising poll-value 2 4000 "
        "clock-sleep 250000000 std-sleep 750 sleep 30 usleep 1000 nanosleep 1500 thread-usleep 20000 nanosleep -1",
        {{"--edge", "2:rising@2.5"}, {}});
    EXPECT_EQ(run.out, "stdio ok\nstdio ok\npoll 2 1 10\nclock_nanosleep 0\nnanosleep EINVAL\n")
        << run.err;  // POLLPRI|POLLERR
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(15));
    EXPECT_EQ(run.boardTimeNs(), 2500000000LL + 250000000 + 750000000 + 30000000000LL + 1000000 + 1500);
    const std::vector<QJsonObject> sleeps = run.events("sleep");
    ASSERT_GE(sleeps.size(), 4U);
    const QJsonObject& threaded = sleeps[sleeps.size() - 1];
    EXPECT_EQ(text(threaded.value("thread")), "other");
    EXPECT_FALSE(threaded.value("virtual").toBool());
    const QJsonObject& seconds = sleeps[sleeps.size() - 4];
    EXPECT_EQ(text(seconds.value("call")), "sleep");
    EXPECT_EQ(seconds.value("us").toDouble(), 30e6);
    EXPECT_TRUE(seconds.value("virtual").toBool());
}

TEST_F(ProcessTest, TheTraceSurvivesProgramsThatCloseOrReplaceDescriptors)
{
    const RunResult run = client("closefrom 3 dup2-onto 900 dup2-onto 901 spi-open /dev/spidev0.0 spi-msg t:05/r:1");
    EXPECT_EQ(run.out, "dup2 ok\ndup2 ok\nopen ok\nmsg 2 00\n") << run.err;
    EXPECT_EQ(run.spiMessages().size(), 1U);
    EXPECT_EQ(run.events("process_exit").size(), 1U);
}

// The spidev descriptor's number is handed out again after its close; the
// ordinary file that gets it must behave as an ordinary file. Stdio output on
// a GPIO file arrives at fflush or fclose, with the store's error.
TEST_F(ProcessTest, OrdinaryFilesPassThroughAndReuseSimulatedNumbers)
{
    const RunResult run = client("spi-open /dev/spidev0.0 fd spi-close file-check plain stdio-write "
                                 "/sys/class/gpio/export 49 stdio-write /sys/class/gpio/export 49 stdio-flush "
                                 "/sys/class/gpio/export 49 file-check plain2");
    int spiFd = -1;
    int firstFileFd = -2;
    int secondFileFd = -3;
    ASSERT_EQ(
        std::sscanf(
            run.out.c_str(),
            "open ok\nfd %d\nclose 0\nfile ok fd %d\nstdio ok\nstdio EBUSY\nflush EBUSY\nstdio ok\nfile ok fd %d\n",
            &spiFd, &firstFileFd, &secondFileFd),
        3)
        << run.describe();
    EXPECT_EQ(firstFileFd, spiFd);
    EXPECT_EQ(secondFileFd, spiFd);  // the export file's number, freed by its close
    struct stat info {};
    EXPECT_EQ(stat((board.stateFolder() + "/gpio/gpio49/value").c_str(), &info), 0);
}

// The frame of the trace and the flash's decoded commands (the end-to-end
// tests read the rest); without --quiet, the short summary on stderr.
TEST_F(ProcessTest, TraceAndSummaryHaveTheDocumentedShape)
{
    const RunResult run = client("spi-open /dev/spidev0.0 spi-msg t:06,cs/t:c7 sleep 1");
    ASSERT_GE(run.trace.size(), 5U);
    EXPECT_EQ(text(run.trace.front().value("ev")) + " " + text(run.trace.back().value("ev")), "run_start run_end");
    double last = 0;
    for (const QJsonObject& event : run.trace) {
        EXPECT_GE(event.value("t").toDouble(-1), last);
        last = event.value("t").toDouble(-1);
    }
    std::string commands;
    for (const QJsonObject& event : run.events("flash_cmd")) {
        commands += text(event.value("name")) + ":" + text(event.value("effect")) + " ";
    }
    EXPECT_EQ(commands, "WREN:latched CE:erased ");
    EXPECT_EQ(run.summary.value("flash").toObject().value("chip_erases").toInt(), 1);
    const testsupport::ProcessResult loud = launch({"--", BOARDSIM_CLIENT, "sleep", "1"});
    EXPECT_NE(loud.err.find("boardsim: board time 1.000"), std::string::npos) << loud.err;
    EXPECT_EQ(launch({"--quiet", "--", BOARDSIM_CLIENT, "sleep", "1"}).err, "");
}

TEST_F(ProcessTest, ExitStatusIsTheCommands)
{
    EXPECT_EQ(board.run({"sh", "-c", "exit 3"}).status, 3);
    EXPECT_EQ(board.run({"sh", "-c", "kill -TERM $$"}).status, 128 + 15);
    EXPECT_EQ(board.run({board.path("no-such-program")}).status, 127);
}

TEST_F(ProcessTest, OwnErrorsStopBeforeTheCommandRuns)
{
    const std::string marker = board.path("ran");
    const testsupport::ProcessResult badFault = launch({"--fault", "msg:x:EIO", "--", "touch", marker});
    EXPECT_EQ(badFault.status(), 125);
    EXPECT_EQ(badFault.err.rfind("boardsim: bad fault 'msg:x:EIO'", 0), 0U) << badFault.err;
    EXPECT_EQ(launch({"--preload", board.path("missing.so"), "--", "touch", marker}).status(), 125);
    struct stat info {};
    EXPECT_NE(stat(marker.c_str(), &info), 0);
}

// A program started with the library but without the launcher's run (here
// by a process of the run that clears it) must not run against no board.
TEST_F(ProcessTest, LibraryWithoutTheLauncherRefusesToRun)
{
    const RunResult run = board.run({"env", "BOARDSIM_RUN=", BOARDSIM_CLIENT, "spi-open", "/dev/spidev0.0"});
    EXPECT_EQ(run.status, 125);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("boardsim: BOARDSIM_RUN is not set"), std::string::npos) << run.err;
}

}  // namespace
}  // namespace boardsim_test
