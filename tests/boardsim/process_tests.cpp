// SPDX-License-Identifier: MIT
// The launcher and the preload library together, with real programs: the
// client program drives the devices through the real C library calls and
// C++ streams, the tests look at its output, the trace, the summary and the
// state folder from outside.
#include "ChildProcess.h"
#include "RunResult.h"
#include "TempFolder.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace boardsim_test {
namespace {

using Outcome = testsupport::ProcessResult;

std::string readAll(const std::string& path)
{
    return testsupport::readText(path);
}

class ProcessTest : public ::testing::Test {
protected:
    // Runs argv (argv[0] found on PATH) with extra environment, capturing its
    // output.
    Outcome execute(const std::vector<std::string>& argv,
                    const std::vector<std::pair<std::string, std::string>>& environment = {})
    {
        testsupport::ProcessRequest request;
        request.argv = argv;
        request.set = environment;
        request.timeoutSeconds = 120;
        return testsupport::runProcess(request);
    }

    // boardsim OPTIONS -- COMMAND, with --state, --trace and --summary of the
    // test unless the options give their own.
    Outcome simulate(std::vector<std::string> options, const std::vector<std::string>& command,
                     const std::vector<std::pair<std::string, std::string>>& environment = {})
    {
        std::vector<std::string> argv{BOARDSIM_LAUNCHER, "--state", state, "--trace", trace, "--summary", summary};
        argv.insert(argv.end(), options.begin(), options.end());
        argv.push_back("--");
        argv.insert(argv.end(), command.begin(), command.end());
        return execute(argv, environment);
    }

    Outcome client(const std::vector<std::string>& operations, const std::vector<std::string>& options = {"--quiet"},
                   const std::vector<std::pair<std::string, std::string>>& environment = {})
    {
        std::vector<std::string> command{BOARDSIM_CLIENT};
        command.insert(command.end(), operations.begin(), operations.end());
        return simulate(options, command, environment);
    }

    std::vector<QJsonObject> traceEvents(const std::string& name = std::string())
    {
        boardtest::RunResult run;
        EXPECT_TRUE(run.readTrace(trace));
        return name.empty() ? run.trace : run.events(name.c_str());
    }

    QJsonObject summaryObject()
    {
        boardtest::RunResult run;
        run.readSummary(summary);
        return run.summary;
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

const std::vector<std::string> kSetup = {"spi-open", "/dev/spidev0.0", "spi-setup"};

std::vector<std::string> withSetup(std::vector<std::string> operations)
{
    operations.insert(operations.begin(), kSetup.begin(), kSetup.end());
    return operations;
}

// The sanitizer runtime this test was built with, to preload in front of the
// library as the launcher does; empty in a plain build.
std::string sanitizerRuntime()
{
    std::string found;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) {
            if (info->dlpi_name != nullptr && std::strstr(info->dlpi_name, "/libasan.so") != nullptr) {
                *static_cast<std::string*>(data) = info->dlpi_name;
                return 1;
            }
            return 0;
        },
        &found);
    return found;
}

// --- SPI through the real calls ------------------------------------------

TEST_F(ProcessTest, FlashContentPersistsAcrossRunsWithState)
{
    const Outcome write = client(withSetup({"spi-msg", "t:06,cs/t:02000100/t:c0ffee", "spi-msg", "t:05/r:1"}));
    ASSERT_EQ(write.status(), 0) << write.err;
    EXPECT_NE(write.out.find("setup 0 0 0 0 0 0 mode 0 bits 8 speed 10000000"), std::string::npos) << write.out;
    EXPECT_NE(write.out.find("msg 8\nmsg 2 03"), std::string::npos) << write.out;  // busy with the latch

    const Outcome read = client(withSetup({"spi-msg", "t:03000100/r:4"}));
    ASSERT_EQ(read.status(), 0) << read.err;
    EXPECT_NE(read.out.find("msg 8 c0ffeeff"), std::string::npos) << read.out;

    const std::string flash = readAll(state + "/flash.bin");
    ASSERT_EQ(flash.size(), 2U * 1024 * 1024);
    EXPECT_EQ(flash.substr(0x100, 4), std::string("\xC0\xFF\xEE\xFF", 4));
}

TEST_F(ProcessTest, ProcessesOfOneRunShareTheBoardAndItsClock)
{
    const std::string script = std::string(BOARDSIM_CLIENT) + " sleep 2 spi-open /dev/spidev0.0 spi-msg t:06 && " +
                               BOARDSIM_CLIENT + " sleep 3 spi-open /dev/spidev0.0 spi-msg t:05/r:1";
    const Outcome outcome = simulate({"--quiet"}, {"sh", "-c", script});
    ASSERT_EQ(outcome.status(), 0) << outcome.err;
    EXPECT_NE(outcome.out.find("msg 2 02"), std::string::npos) << outcome.out;  // the latch from the first process
    const QJsonObject result = summaryObject();
    // The shell is a process of the run as well, when it can load the library.
    EXPECT_EQ(result.value("processes").toInt(), BOARDSIM_SHELL_IS_FOREIGN ? 2 : 3);
    EXPECT_EQ(result.value("board_time_ns").toDouble(), 5e9 + 2 * 20000 + 400 * 3);
}

TEST_F(ProcessTest, MessageFaultReachesTheProgramAsItsErrno)
{
    const Outcome outcome =
        client(withSetup({"spi-msg", "t:05/r:1", "spi-msg", "t:05/r:1"}), {"--quiet", "--fault", "msg:2:EREMOTEIO"});
    EXPECT_NE(outcome.out.find("msg 2 00\nmsg -1 EREMOTEIO"), std::string::npos) << outcome.out;
    EXPECT_EQ(summaryObject().value("spi").toObject().value("failed").toInt(), 1);
}

TEST_F(ProcessTest, FaultsComeFromTheEnvironmentToo)
{
    const Outcome outcome =
        client({"spi-open", "/dev/spidev0.0", "melody"}, {"--quiet"}, {{"BOARDSIM_FAULTS", "no-spidev, no-melody"}});
    EXPECT_NE(outcome.out.find("open ENOENT"), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find("melody ENOENT -1 EBADF -1 -1"), std::string::npos) << outcome.out;
}

TEST_F(ProcessTest, SpidevServedAtAnotherPathAndDescriptorCallsWork)
{
    const Outcome outcome = client({"spi-open", "board-node", "spi-cloexec", "spi-dup", "spi-msg", "t:9f/r:3",
                                    "spi-write", "06", "spi-read", "2", "spi-close"},
                                   {"--quiet", "--spidev", root + "/board-node"});
    ASSERT_EQ(outcome.status(), 0) << outcome.err;
    // The client runs in the launcher's folder; its relative path is ours.
    EXPECT_EQ(outcome.out,
              "open ENOENT\ncloexec -1\ndup EBADF\nmsg -1 EBADF\nwrite -1 EBADF\nread -1 EBADF\nclose -1\n");
    const std::string node = root + "/board-node";
    const Outcome absolute = client({"spi-open", node, "spi-cloexec", "spi-dup", "spi-msg", "t:9f/r:3", "spi-write",
                                     "06", "spi-read", "2", "spi-close"},
                                    {"--quiet", "--spidev", node});
    EXPECT_EQ(absolute.out, "open ok\ncloexec 0\ndup ok\nmsg 4 ef4015\nwrite 1\nread 2 ffff\nclose 0\n")
        << absolute.err;
}

TEST_F(ProcessTest, DeviceNodesAndGpioPathsExistForStatAndAccess)
{
    Outcome outcome = client({"stat", "/dev/spidev0.0", "stat", "/dev/mldalm", "stat", "/sys/class/gpio/gpio48",
                              "gpio-write", "/sys/class/gpio/export", "48", "stat", "/sys/class/gpio/gpio48", "stat",
                              "/sys/class/gpio/gpio48/value"});
    EXPECT_EQ(outcome.out, "stat chr 153 0\naccess ok\nstat chr 10 130\naccess ok\nstat ENOENT\naccess ENOENT\n"
                           "write ok\nstat dir\naccess ok\nstat file\naccess ok\n")
        << outcome.err;
    outcome = client({"stat", "/dev/spidev0.0"}, {"--quiet", "--fault", "no-spidev"});
    EXPECT_EQ(outcome.out, "stat ENOENT\naccess ENOENT\n");
}

// --- GPIO through raw descriptors and stdio ------------------------------

TEST_F(ProcessTest, FortifiedEntryPointsReachTheSimulator)
{
    const Outcome outcome = simulate({"--quiet"}, {BOARDSIM_FORTIFIED_CLIENT, "49"});
    EXPECT_EQ(outcome.status(), 0) << outcome.err;
    EXPECT_EQ(outcome.out, "read 2 0 poll 0 ppoll 0\n");
    EXPECT_EQ(traceEvents("gpio_open").size(), 2U);  // export and value (through the folder)
    EXPECT_EQ(traceEvents("gpio_read").size(), 1U);
}

TEST_F(ProcessTest, PollAndEveryKindOfSleepOnTheMainThread)
{
    const Outcome outcome =
        client({"gpio-write", "/sys/class/gpio/export", "2", "gpio-write", "/sys/class/gpio/gpio2/edge", "rising",
                "poll-value", "2", "4000", "clock-sleep", "250000000", "std-sleep", "750"},
               {"--quiet", "--edge", "2:rising@2.5"});
    EXPECT_EQ(outcome.out, "write ok\nwrite ok\npoll 1 10\nclock_nanosleep 0\n") << outcome.err;  // POLLPRI|POLLERR
    EXPECT_EQ(summaryObject().value("board_time_ns").toDouble(), 3.5e9);
}

TEST_F(ProcessTest, TheTraceSurvivesProgramsThatCloseOrReplaceDescriptors)
{
    const Outcome outcome = client({"closefrom", "3", "dup2-onto", "900", "dup2-onto", "901", "spi-open",
                                    "/dev/spidev0.0", "spi-msg", "t:05/r:1"});
    EXPECT_EQ(outcome.out, "dup2 ok\ndup2 ok\nopen ok\nmsg 2 00\n") << outcome.err;
    EXPECT_EQ(traceEvents("spi_msg").size(), 1U);
    EXPECT_EQ(traceEvents("process_exit").size(), 1U);
}

TEST_F(ProcessTest, StdioOutputOnAGpioFileIsDeliveredAtClose)
{
    const Outcome outcome = client({"stdio-write", "/sys/class/gpio/export", "49\n", "stdio-write",
                                    "/sys/class/gpio/export", "49", "file-check", root + "/after-stdio"});
    EXPECT_EQ(outcome.out.substr(0, 32), "stdio ok\nstdio EBUSY\nfile ok fd ");
    struct stat info {};
    EXPECT_EQ(stat((state + "/gpio/gpio49/value").c_str(), &info), 0);
}

// --- Sleeps and pass-through -------------------------------------------

TEST_F(ProcessTest, MainThreadSleepsAreVirtualOtherThreadsSleepForReal)
{
    const auto before = std::chrono::steady_clock::now();
    const Outcome outcome = client({"sleep", "30", "usleep", "1000", "nanosleep", "1500", "thread-usleep", "20000"});
    ASSERT_EQ(outcome.status(), 0) << outcome.err;
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(15));
    EXPECT_EQ(summaryObject().value("board_time_ns").toDouble(), 30e9 + 1e6 + 1500);
    const std::vector<QJsonObject> sleeps = traceEvents("sleep");
    ASSERT_EQ(sleeps.size(), 4U);
    EXPECT_EQ(text(sleeps[0], "call"), "sleep");
    EXPECT_EQ(sleeps[0].value("us").toDouble(), 30e6);
    EXPECT_TRUE(sleeps[0].value("virtual").toBool());
    EXPECT_EQ(text(sleeps[3], "thread"), "other");
    EXPECT_FALSE(sleeps[3].value("virtual").toBool());
    EXPECT_EQ(client({"nanosleep", "-1"}).out, "nanosleep -1 EINVAL\n");
}

TEST_F(ProcessTest, OrdinaryFilesPassThroughAndReuseSimulatedNumbers)
{
    // The spidev descriptor's number is handed out again after its close; the
    // ordinary file that gets it must behave as an ordinary file.
    const Outcome outcome = client({"spi-open", "/dev/spidev0.0", "fd", "spi-close", "file-check", root + "/plain",
                                    "gpio-write", "/sys/class/gpio/export", "48", "file-check", root + "/plain2"});
    int spiFd = -1;
    int firstFileFd = -2;
    int secondFileFd = -3;
    ASSERT_EQ(std::sscanf(outcome.out.c_str(), "open ok\nfd %d\nclose 0\nfile ok fd %d\nwrite ok\nfile ok fd %d\n",
                          &spiFd, &firstFileFd, &secondFileFd),
              3)
        << outcome.out << outcome.err;
    EXPECT_EQ(firstFileFd, spiFd);
    EXPECT_EQ(secondFileFd, spiFd);  // the export file's number, freed by its close
    EXPECT_EQ(readAll(root + "/plain"), "second line");
}

// --- The launcher -----------------------------------------------------------

TEST_F(ProcessTest, TraceAndSummaryHaveTheDocumentedShape)
{
    const Outcome outcome = client(withSetup({"spi-msg", "t:06,cs/t:c7", "sleep", "1"}), {});
    ASSERT_EQ(outcome.status(), 0);
    EXPECT_NE(outcome.err.find("boardsim: board time 1.000"), std::string::npos) << outcome.err;
    EXPECT_NE(outcome.err.find("boardsim: violations: 1 (gpio48-not-low 1)"), std::string::npos) << outcome.err;
    const std::vector<QJsonObject> events = traceEvents();
    ASSERT_GE(events.size(), 10U);
    EXPECT_EQ(text(events.front(), "ev"), "run_start");
    EXPECT_EQ(text(events.back(), "ev"), "run_end");
    double last = 0;
    for (const QJsonObject& event : events) {
        ASSERT_TRUE(event.value("t").isDouble());
        EXPECT_GE(event.value("t").toDouble(), last);
        last = event.value("t").toDouble();
    }
    const std::vector<QJsonObject> setups = traceEvents("spi_ioctl");
    ASSERT_EQ(setups.size(), 6U);
    EXPECT_EQ(text(setups[4], "req"), "WR_MAX_SPEED_HZ");
    EXPECT_EQ(setups[4].value("value").toInt(), 10000000);
    const std::vector<QJsonObject> messages = traceEvents("spi_msg");
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_TRUE(messages[0].value("gpio48").isNull());
    const QJsonArray records = messages[0].value("records").toArray();
    ASSERT_EQ(records.size(), 2);
    EXPECT_EQ(records[0].toObject().value("tx").toString(), "06");
    EXPECT_EQ(records[0].toObject().value("cs_change").toInt(), 1);
    EXPECT_FALSE(records[1].toObject().value("rx").toBool());
    std::vector<std::string> commands;
    for (const QJsonObject& event : traceEvents("flash_cmd")) {
        commands.push_back(text(event, "name") + ":" + text(event, "effect"));
    }
    EXPECT_EQ(commands, (std::vector<std::string>{"WREN:latched", "CE:erased"}));
    const QJsonObject result = summaryObject();
    EXPECT_EQ(result.value("flash").toObject().value("chip_erases").toInt(), 1);
    EXPECT_EQ(result.value("violations_total").toInt(), 1);
    EXPECT_EQ(text(result.value("violations").toArray()[0].toObject(), "rule"), "gpio48-not-low");
}

TEST_F(ProcessTest, ExitStatusIsTheCommands)
{
    EXPECT_EQ(client({"exit", "3"}).status(), 3);
    EXPECT_EQ(simulate({"--quiet"}, {"sh", "-c", "kill -TERM $$"}).status(), 128 + 15);
    EXPECT_EQ(simulate({"--quiet"}, {root + "/no-such-program"}).status(), 127);
}

TEST_F(ProcessTest, OwnErrorsStopBeforeTheCommandRuns)
{
    const std::string marker = root + "/ran";
    const std::vector<std::string> command{"touch", marker};
    Outcome outcome = simulate({"--fault", "msg:x:EIO"}, command);
    EXPECT_EQ(outcome.status(), 125);
    EXPECT_EQ(outcome.err.rfind("boardsim: bad fault 'msg:x:EIO'", 0), 0U) << outcome.err;

    ASSERT_EQ(mkdir(state.c_str(), 0755), 0);
    std::ofstream(state + "/flash.bin") << "too short";
    outcome = simulate({}, command);
    EXPECT_EQ(outcome.status(), 125);
    EXPECT_NE(outcome.err.find("broken state folder"), std::string::npos) << outcome.err;

    outcome = simulate({"--preload", root + "/missing.so"}, command);
    EXPECT_EQ(outcome.status(), 125);
    struct stat info {};
    EXPECT_NE(stat(marker.c_str(), &info), 0);
}

TEST_F(ProcessTest, LibraryWithoutTheLauncherRefusesToRun)
{
    std::string preload = sanitizerRuntime();
    preload += (preload.empty() ? "" : " ") + std::string(BOARDSIM_LIBRARY);
    const Outcome outcome =
        execute({BOARDSIM_CLIENT, "spi-open", "/dev/spidev0.0"}, {{"LD_PRELOAD", preload}, {"BOARDSIM_RUN", ""}});
    EXPECT_EQ(outcome.status(), 125);
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err.find("boardsim: BOARDSIM_RUN is not set"), std::string::npos) << outcome.err;
}

TEST_F(ProcessTest, QuietLeavesStderrToTheProgram)
{
    const Outcome outcome = client({"exit", "0"}, {"--quiet"});
    EXPECT_EQ(outcome.err, "");
}

}  // namespace
}  // namespace boardsim_test
