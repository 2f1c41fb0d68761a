// SPDX-License-Identifier: MIT
// The launcher and the preload library together, with real programs: what
// only a fresh process shows (the interposed C library calls, processes of
// one run sharing the board, the launcher's exit status). The device models
// behind them are tested in-process.
#include "ChildProcess.h"
#include "RunResult.h"
#include "TempFolder.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace boardsim_test {
namespace {

using Outcome = testsupport::ProcessResult;
using Environment = std::vector<std::pair<std::string, std::string>>;

class ProcessTest : public ::testing::Test {
protected:
    Outcome execute(const std::vector<std::string>& argv, const Environment& environment = {})
    {
        testsupport::ProcessRequest request;
        request.argv = argv;
        request.set = environment;
        request.timeoutSeconds = 120;
        return testsupport::runProcess(request);
    }

    // boardsim --state --trace --summary OPTIONS -- COMMAND
    Outcome simulate(std::vector<std::string> options, const std::vector<std::string>& command,
                     const Environment& environment = {})
    {
        std::vector<std::string> argv{BOARDSIM_LAUNCHER, "--state", state, "--trace", trace, "--summary", summary};
        argv.insert(argv.end(), options.begin(), options.end());
        argv.push_back("--");
        argv.insert(argv.end(), command.begin(), command.end());
        return execute(argv, environment);
    }

    // The client with its operations, given as one blank-separated text.
    Outcome client(const std::string& operations, const std::vector<std::string>& options = {"--quiet"},
                   const Environment& environment = {})
    {
        std::vector<std::string> command{BOARDSIM_CLIENT};
        std::istringstream words(operations);
        for (std::string word; words >> word;) {
            command.push_back(word);
        }
        return simulate(options, command, environment);
    }

    boardtest::RunResult result()
    {
        boardtest::RunResult run;
        EXPECT_TRUE(run.readTrace(trace));
        run.readSummary(summary);
        return run;
    }

    static std::string text(const QJsonObject& object, const char* key)
    {
        return object.value(key).toString().toStdString();
    }

    testsupport::TempFolder folder{"boardsim-process-test"};
    const std::string root = folder.path();
    const std::string state = folder.path("state");
    const std::string trace = folder.path("trace.jsonl");
    const std::string summary = folder.path("summary.json");
};

// What an independent spidev programmer does: identify, program, fast read,
// block erase; the flash content outlives the run in the state folder.
TEST_F(ProcessTest, IndependentProgrammerWorksThroughTheRealCalls)
{
    const Outcome first =
        client("spi-open /dev/spidev0.0 spi-msg t:9f/r:3 spi-msg t:06,cs/t:02000100/t:c0ffee spi-msg t:05/r:1");
    EXPECT_EQ(first.out, "open ok\nmsg 4 ef4015\nmsg 8\nmsg 2 03\n") << first.err;  // busy with the latch
    const Outcome second = client(
        "spi-open /dev/spidev0.0 spi-msg t:0b00010000/r:4 spi-msg t:06,cs/t:d8000000 sleep 1 spi-msg t:03000100/r:3");
    EXPECT_EQ(second.out, "open ok\nmsg 9 c0ffeeff\nmsg 5\nmsg 7 ffffff\n") << second.err;
    const std::string flash = testsupport::readText(state + "/flash.bin");
    ASSERT_EQ(flash.size(), 2U * 1024 * 1024);
    EXPECT_EQ(flash.substr(0x100, 3), "\xFF\xFF\xFF");
    EXPECT_EQ(result().summary.value("flash").toObject().value("block_erases").toInt(), 1);
}

TEST_F(ProcessTest, ProcessesOfOneRunShareTheBoardAndItsClock)
{
    const std::string script = std::string(BOARDSIM_CLIENT) + " sleep 2 spi-open /dev/spidev0.0 spi-msg t:06 && " +
                               BOARDSIM_CLIENT + " sleep 3 spi-open /dev/spidev0.0 spi-msg t:05/r:1";
    const Outcome outcome = simulate({"--quiet"}, {"sh", "-c", script});
    ASSERT_EQ(outcome.status(), 0) << outcome.err;
    EXPECT_NE(outcome.out.find("msg 2 02"), std::string::npos) << outcome.out;  // the latch from the first process
    const boardtest::RunResult run = result();
    // The shell is a process of the run as well, when it can load the library.
    EXPECT_EQ(run.summary.value("processes").toInt(), BOARDSIM_SHELL_IS_FOREIGN ? 2 : 3);
    EXPECT_EQ(run.boardTimeNs(), 5000000000LL + 2 * 20000 + 400 * 3);
}

TEST_F(ProcessTest, SpidevServedAtAnotherPathAndDescriptorCallsWork)
{
    auto at = [&](const std::string& path) {
        return client("spi-open " + path + " spi-cloexec spi-dup spi-msg t:9f/r:3 spi-close",
                      {"--quiet", "--spidev", root + "/board-node"})
            .out;
    };
    // The client runs in the launcher's folder; its relative path is ours.
    EXPECT_EQ(at("board-node"), "open ENOENT\ncloexec -1\ndup EBADF\nmsg -1 EBADF\nclose -1\n");
    EXPECT_EQ(at(root + "/board-node"), "open ok\ncloexec 0\ndup ok\nmsg 4 ef4015\nclose 0\n");
}

// Device nodes and GPIO paths exist for stat and access as on the board,
// until a fault (here from the environment) removes them; a message fault
// reaches the program as its errno.
TEST_F(ProcessTest, DeviceNodesGpioPathsAndFaultsAsTheProgramSeesThem)
{
    const Outcome outcome =
        client("stat /dev/spidev0.0 stat /dev/mldalm stat /sys/class/gpio/gpio48 stdio-write /sys/class/gpio/export 48 "
               "stat /sys/class/gpio/gpio48 stat /sys/class/gpio/gpio48/value");
    EXPECT_EQ(outcome.out, "stat chr 153 0\naccess ok\nstat chr 10 130\naccess ok\nstat ENOENT\naccess ENOENT\n"
                           "stdio ok\nstat dir\naccess ok\nstat file\naccess ok\n")
        << outcome.err;
    const Outcome faulty =
        client("stat /dev/mldalm stat /dev/spidev0.0 spi-open /dev/spidev0.0 spi-msg t:05/r:1 spi-msg t:05/r:1",
               {"--quiet"}, {{"BOARDSIM_FAULTS", "msg:2:EREMOTEIO, no-melody"}});
    EXPECT_EQ(faulty.out,
              "stat ENOENT\naccess ENOENT\nstat chr 153 0\naccess ok\nopen ok\nmsg 2 00\nmsg -1 EREMOTEIO\n")
        << faulty.err;
    EXPECT_EQ(client("stat /dev/spidev0.0", {"--quiet", "--fault", "no-spidev"}).out, "stat ENOENT\naccess ENOENT\n");
}

TEST_F(ProcessTest, FortifiedEntryPointsReachTheSimulator)
{
    const Outcome outcome = simulate({"--quiet"}, {BOARDSIM_FORTIFIED_CLIENT, "49"});
    EXPECT_EQ(outcome.out, "read 2 0 poll 0 ppoll 0\n") << outcome.err;
    const boardtest::RunResult run = result();
    EXPECT_EQ(run.events("gpio_open").size(), 2U);  // export and value (through the folder)
    EXPECT_EQ(run.events("gpio_read").size(), 1U);
}

// Every kind of sleep on the main thread moves the board clock instead of
// waiting; other threads sleep for real and leave the clock alone.
TEST_F(ProcessTest, MainThreadSleepsAndPollsAreVirtualOtherThreadsSleepForReal)
{
    const auto before = std::chrono::steady_clock::now();
    const Outcome outcome = client(
        "stdio-write /sys/class/gpio/export 2 stdio-write /sys/class/gpio/gpio2/edge rising poll-value 2 4000 "
        "clock-sleep 250000000 std-sleep 750 sleep 30 usleep 1000 nanosleep 1500 thread-usleep 20000 nanosleep -1",
        {"--quiet", "--edge", "2:rising@2.5"});
    EXPECT_EQ(outcome.out, "stdio ok\nstdio ok\npoll 2 1 10\nclock_nanosleep 0\nnanosleep EINVAL\n")
        << outcome.err;  // POLLPRI|POLLERR
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(15));
    const boardtest::RunResult run = result();
    EXPECT_EQ(run.boardTimeNs(), 2500000000LL + 250000000 + 750000000 + 30000000000LL + 1000000 + 1500);
    const std::vector<QJsonObject> sleeps = run.events("sleep");
    ASSERT_GE(sleeps.size(), 4U);
    const QJsonObject& threaded = sleeps[sleeps.size() - 1];
    EXPECT_EQ(text(threaded, "thread"), "other");
    EXPECT_FALSE(threaded.value("virtual").toBool());
    const QJsonObject& seconds = sleeps[sleeps.size() - 4];
    EXPECT_EQ(text(seconds, "call"), "sleep");
    EXPECT_EQ(seconds.value("us").toDouble(), 30e6);
    EXPECT_TRUE(seconds.value("virtual").toBool());
}

TEST_F(ProcessTest, TheTraceSurvivesProgramsThatCloseOrReplaceDescriptors)
{
    const Outcome outcome = client("closefrom 3 dup2-onto 900 dup2-onto 901 spi-open /dev/spidev0.0 spi-msg t:05/r:1");
    EXPECT_EQ(outcome.out, "dup2 ok\ndup2 ok\nopen ok\nmsg 2 00\n") << outcome.err;
    const boardtest::RunResult run = result();
    EXPECT_EQ(run.spiMessages().size(), 1U);
    EXPECT_EQ(run.events("process_exit").size(), 1U);
}

// The spidev descriptor's number is handed out again after its close; the
// ordinary file that gets it must behave as an ordinary file. Stdio output on
// a GPIO file arrives at fclose, with the store's error.
TEST_F(ProcessTest, OrdinaryFilesPassThroughAndReuseSimulatedNumbers)
{
    const Outcome outcome = client("spi-open /dev/spidev0.0 fd spi-close file-check " + root +
                                   "/plain stdio-write /sys/class/gpio/export 49 "
                                   "stdio-write /sys/class/gpio/export 49 file-check " +
                                   root + "/plain2");
    int spiFd = -1;
    int firstFileFd = -2;
    int secondFileFd = -3;
    ASSERT_EQ(std::sscanf(outcome.out.c_str(),
                          "open ok\nfd %d\nclose 0\nfile ok fd %d\nstdio ok\nstdio EBUSY\nfile ok fd %d\n", &spiFd,
                          &firstFileFd, &secondFileFd),
              3)
        << outcome.out << outcome.err;
    EXPECT_EQ(firstFileFd, spiFd);
    EXPECT_EQ(secondFileFd, spiFd);  // the export file's number, freed by its close
    struct stat info {};
    EXPECT_EQ(stat((state + "/gpio/gpio49/value").c_str(), &info), 0);
}

// The records and GPIO events the end-to-end tests read; here the frame of
// the trace, the flash's decoded commands and the short summary on stderr.
TEST_F(ProcessTest, TraceAndSummaryHaveTheDocumentedShape)
{
    const Outcome outcome = client("spi-open /dev/spidev0.0 spi-msg t:06,cs/t:c7 sleep 1", {});
    EXPECT_NE(outcome.err.find("boardsim: board time 1.000"), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("boardsim: violations: 1 (gpio48-not-low 1)"), std::string::npos) << outcome.err;
    const boardtest::RunResult run = result();
    ASSERT_GE(run.trace.size(), 5U);
    EXPECT_EQ(text(run.trace.front(), "ev") + " " + text(run.trace.back(), "ev"), "run_start run_end");
    double last = 0;
    for (const QJsonObject& event : run.trace) {
        EXPECT_GE(event.value("t").toDouble(-1), last);
        last = event.value("t").toDouble(-1);
    }
    std::string commands;
    for (const QJsonObject& event : run.events("flash_cmd")) {
        commands += text(event, "name") + ":" + text(event, "effect") + " ";
    }
    EXPECT_EQ(commands, "WREN:latched CE:erased ");
    EXPECT_EQ(run.summary.value("flash").toObject().value("chip_erases").toInt(), 1);
}

TEST_F(ProcessTest, ExitStatusIsTheCommandsAndQuietLeavesStderrToIt)
{
    const Outcome exited = client("exit 3");
    EXPECT_EQ(exited.status(), 3);
    EXPECT_EQ(exited.err, "");
    EXPECT_EQ(simulate({"--quiet"}, {"sh", "-c", "kill -TERM $$"}).status(), 128 + 15);
    EXPECT_EQ(simulate({"--quiet"}, {root + "/no-such-program"}).status(), 127);
}

TEST_F(ProcessTest, OwnErrorsStopBeforeTheCommandRuns)
{
    const std::string marker = root + "/ran";
    const std::vector<std::string> command{"touch", marker};
    const Outcome outcome = simulate({"--fault", "msg:x:EIO"}, command);
    EXPECT_EQ(outcome.status(), 125);
    EXPECT_EQ(outcome.err.rfind("boardsim: bad fault 'msg:x:EIO'", 0), 0U) << outcome.err;
    EXPECT_EQ(simulate({"--preload", root + "/missing.so"}, command).status(), 125);
    struct stat info {};
    EXPECT_NE(stat(marker.c_str(), &info), 0);
}

// A program started with the library but without the launcher's run (here
// by a process of the run that clears it) must not run against no board.
TEST_F(ProcessTest, LibraryWithoutTheLauncherRefusesToRun)
{
    const Outcome outcome =
        simulate({"--quiet"}, {"env", "BOARDSIM_RUN=", BOARDSIM_CLIENT, "spi-open", "/dev/spidev0.0"});
    EXPECT_EQ(outcome.status(), 125);
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err.find("boardsim: BOARDSIM_RUN is not set"), std::string::npos) << outcome.err;
}

}  // namespace
}  // namespace boardsim_test
