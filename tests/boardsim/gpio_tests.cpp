// SPDX-License-Identifier: MIT
// sysfs GPIO: export and unexport, attribute stores with the kernel's errors,
// active_low, and edge waits in virtual time.
#include "sim_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

namespace boardsim_test {
namespace {

const std::string kGpio = "/sys/class/gpio";

class GpioTest : public SimFixture {
protected:
    bool inTree(const std::string& relative)
    {
        struct stat info {};
        return ::stat((stateDir() + "/gpio/" + relative).c_str(), &info) == 0;
    }

    void exportLine(int line) { ASSERT_EQ(store(kGpio + "/export", std::to_string(line)), 0); }

    // Opens value, reads it (acknowledging past edges) and polls for POLLPRI.
    int waitForEdge(int line, const std::string& edge, std::int64_t timeoutNs, short* revents = nullptr)
    {
        const std::string folder = kGpio + "/gpio" + std::to_string(line);
        EXPECT_EQ(store(folder + "/edge", edge), 0);
        const int fd = open((folder + "/value").c_str(), O_RDONLY);
        readText(fd);
        pollfd watched{fd, POLLPRI, 0};
        const timespec timeout{static_cast<time_t>(timeoutNs / 1000000000LL),
                               static_cast<long>(timeoutNs % 1000000000LL)};
        const auto served = sim().poll(&watched, 1, &timeout, nullptr);
        EXPECT_TRUE(served);
        if (revents != nullptr) {
            *revents = watched.revents;
        }
        close(fd);
        return served ? served->result : 0;
    }
};

TEST_F(GpioTest, ExportCreatesTheLineFolderAndRefusesASecondExport)
{
    start();
    exportLine(48);
    EXPECT_EQ(readFile(stateDir() + "/gpio/gpio48/value"), "0\n");
    EXPECT_EQ(readFile(stateDir() + "/gpio/gpio48/direction"), "in\n");
    EXPECT_EQ(readFile(stateDir() + "/gpio/gpio48/active_low"), "0\n");
    EXPECT_EQ(readFile(stateDir() + "/gpio/gpio48/edge"), "none\n");
    EXPECT_EQ(store(kGpio + "/export", "48"), EBUSY);
    EXPECT_EQ(store(kGpio + "/unexport", "48"), 0);
    EXPECT_FALSE(inTree("gpio48"));
    EXPECT_EQ(store(kGpio + "/unexport", "48"), EINVAL);
}

TEST_F(GpioTest, NumbersAreReadLikeTheKernelReadsThem)
{
    start();
    EXPECT_EQ(store(kGpio + "/export", "0x30"), 0);
    EXPECT_TRUE(inTree("gpio48"));
    EXPECT_EQ(store(kGpio + "/export", "143\n"), 0);
    EXPECT_TRUE(inTree("gpio143"));
    EXPECT_EQ(store(kGpio + "/export", " 2"), EINVAL);
    EXPECT_EQ(store(kGpio + "/export", "2 "), EINVAL);
    EXPECT_EQ(store(kGpio + "/export", "2\n\n"), EINVAL);
    EXPECT_EQ(store(kGpio + "/export", "-1"), EINVAL);
    EXPECT_EQ(store(kGpio + "/export", "224"), EINVAL);
    EXPECT_EQ(store(kGpio + "/export", "99999999999999999999"), ERANGE);
}

TEST_F(GpioTest, ValueStoresFollowDirectionAndActiveLow)
{
    start();
    exportLine(51);
    const std::string line = kGpio + "/gpio51";
    EXPECT_EQ(store(line + "/value", "1"), EPERM);  // input
    EXPECT_EQ(store(line + "/direction", "sideways"), EINVAL);
    EXPECT_EQ(store(line + "/direction", "high"), 0);
    EXPECT_EQ(show(line + "/value"), "1\n");
    EXPECT_EQ(store(line + "/direction", "out"), 0);  // out drives 0
    EXPECT_EQ(show(line + "/value"), "0\n");
    EXPECT_EQ(store(line + "/active_low", "1"), 0);
    EXPECT_EQ(show(line + "/value"), "1\n");  // electrical 0, read inverted
    EXPECT_EQ(store(line + "/value", "0"), 0);
    EXPECT_EQ(run().lines[51].outputLevel, 1);
    EXPECT_EQ(store(line + "/value", "x"), EINVAL);
    EXPECT_EQ(store(line + "/active_low", "maybe"), EINVAL);
    EXPECT_EQ(readFile(stateDir() + "/gpio/gpio51/value"), "0\n");
    EXPECT_EQ(readFile(stateDir() + "/gpio/gpio51/direction"), "out\n");
}

TEST_F(GpioTest, EdgesArmOnlyOnInputs)
{
    start();
    exportLine(2);
    const std::string line = kGpio + "/gpio2";
    EXPECT_EQ(store(line + "/edge", "falling"), 0);
    EXPECT_EQ(store(line + "/direction", "out"), EIO);  // an armed line is an interrupt
    EXPECT_EQ(store(line + "/edge", "none"), 0);
    EXPECT_EQ(store(line + "/direction", "out"), 0);
    EXPECT_EQ(store(line + "/edge", "rising"), EIO);
    EXPECT_EQ(store(line + "/edge", "sometimes"), EINVAL);
}

TEST_F(GpioTest, OpensFollowSysfsRules)
{
    start();
    int err = 0;
    EXPECT_EQ(open((kGpio + "/export").c_str(), O_RDONLY, &err), -1);
    EXPECT_EQ(err, EACCES);
    EXPECT_EQ(open((kGpio + "/gpio48/value").c_str(), O_RDWR, &err), -1);
    EXPECT_EQ(err, ENOENT);
    exportLine(48);
    EXPECT_EQ(open((kGpio + "/gpio48/color").c_str(), O_WRONLY | O_CREAT, &err), -1);
    EXPECT_EQ(err, EACCES);
    EXPECT_EQ(open((kGpio + "/gpio48/color").c_str(), O_RDONLY, &err), -1);
    EXPECT_EQ(err, ENOENT);
    const int fd = open((kGpio + "/gpio48/value").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(store(kGpio + "/unexport", "48"), 0);
    EXPECT_EQ(readText(fd), "error " + std::to_string(ENODEV));
    close(fd);
}

TEST_F(GpioTest, ReadsAndSeeksWorkOnTheShownText)
{
    start();
    exportLine(49);
    const int fd = open((kGpio + "/gpio49/direction").c_str(), O_RDWR);
    EXPECT_EQ(readText(fd, 2), "in");
    EXPECT_EQ(readText(fd), "\n");
    EXPECT_EQ(readText(fd), "");
    // Writes go to the attribute whatever the position, as sysfs stores do.
    EXPECT_EQ(writeText(fd, "out"), 3);
    ASSERT_TRUE(sim().seek(fd, 0, SEEK_SET));
    EXPECT_EQ(readText(fd), "out\n");
    close(fd);
}

TEST_F(GpioTest, ExportRefusedFault)
{
    boardsim::Options options;
    options.faults = {"export-refused:2", "export-refused:3:EPERM"};
    start(options);
    EXPECT_EQ(store(kGpio + "/export", "2"), EBUSY);
    EXPECT_EQ(store(kGpio + "/export", "3"), EPERM);
    EXPECT_EQ(store(kGpio + "/export", "4"), 0);
}

TEST_F(GpioTest, UnexportKeepsTheElectricalStateAndClearsTheFlags)
{
    start();
    exportLine(48);
    ASSERT_EQ(store(kGpio + "/gpio48/direction", "high"), 0);
    ASSERT_EQ(store(kGpio + "/gpio48/active_low", "1"), 0);
    ASSERT_EQ(store(kGpio + "/unexport", "48"), 0);
    exportLine(48);
    EXPECT_EQ(show(kGpio + "/gpio48/direction"), "out\n");
    EXPECT_EQ(show(kGpio + "/gpio48/active_low"), "0\n");
    EXPECT_EQ(show(kGpio + "/gpio48/value"), "1\n");
}

TEST_F(GpioTest, ScriptedEdgeWakesAPollAtItsVirtualTime)
{
    boardsim::Options options;
    options.edges = {"2:falling@1.5"};
    start(options);
    exportLine(2);
    EXPECT_EQ(show(kGpio + "/gpio2/value"), "1\n");  // opposite of the first edge
    short revents = 0;
    EXPECT_EQ(waitForEdge(2, "falling", 5000000000LL, &revents), 1);
    EXPECT_EQ(revents, POLLPRI | POLLERR);
    EXPECT_EQ(now(), 1500000000);
    EXPECT_EQ(show(kGpio + "/gpio2/value"), "0\n");
    EXPECT_EQ(readFile(stateDir() + "/gpio/gpio2/value"), "0\n");
}

TEST_F(GpioTest, PollTimesOutInVirtualTimeWhenNoArmedEdgeComes)
{
    boardsim::Options options;
    options.edges = {"2:falling@1.5"};
    start(options);
    exportLine(2);
    EXPECT_EQ(waitForEdge(2, "rising", 3000000000LL), 0);
    EXPECT_EQ(now(), 3000000000);
    EXPECT_EQ(show(kGpio + "/gpio2/value"), "0\n");  // the level did change
    EXPECT_EQ(waitForEdge(2, "both", 0), 0);         // no edge pending: at once
    EXPECT_EQ(now(), 3000000000);
}

// Every poll of a value file leaves a gpio_poll trace line with its time-out
// (null: none) and outcome, also when it waits for real because a real
// descriptor is in the set; a poll without a value file leaves none.
TEST_F(GpioTest, PollsOfValueFilesAreTracedWithTimeOutAndOutcome)
{
    boardsim::Options options;
    options.tracePath = stateDir() + ".trace";
    options.edges = {"2:rising@1"};
    start(options);
    exportLine(2);
    ASSERT_EQ(store(kGpio + "/gpio2/edge", "rising"), 0);
    const int value = open((kGpio + "/gpio2/value").c_str(), O_RDONLY);
    readText(value);
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    pollfd withReal[2] = {{value, POLLPRI, 0}, {pipeEnds[0], POLLIN, 0}};
    pollfd bus{openSpi(), POLLIN, 0};
    const timespec none{0, 0};
    const timespec brief{0, 1000000};
    const auto none0 = sim().poll(withReal, 1, &none, nullptr);
    ASSERT_TRUE(none0);
    EXPECT_EQ(none0->result, 0);
    const auto brief0 = sim().poll(withReal, 2, &brief, nullptr);
    ASSERT_TRUE(brief0);
    EXPECT_EQ(brief0->result, 0);
    EXPECT_TRUE(sim().poll(&bus, 1, &brief, nullptr));
    const auto edge = sim().poll(withReal, 1, nullptr, nullptr);
    ASSERT_TRUE(edge);
    EXPECT_EQ(edge->result, 1);
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
    std::vector<std::string> polls;
    std::istringstream trace(readFile(options.tracePath));
    for (std::string line; std::getline(trace, line);) {
        if (line.find("\"gpio_poll\"") != std::string::npos) {
            polls.push_back(line.substr(line.find("\"line\"")));
        }
    }
    EXPECT_EQ(polls, (std::vector<std::string>{"\"line\":2,\"timeout_ns\":0,\"result\":\"timeout\"}",
                                               "\"line\":2,\"timeout_ns\":1000000,\"result\":\"timeout\"}",
                                               "\"line\":2,\"timeout_ns\":null,\"result\":\"edge\"}"}));
}

// Which paths the program's own calls (opendir, stat, open of other files)
// reach in the state folder's tree, and which the simulator serves itself
// (export, unexport, a line's attributes) or refuses (other line files).
struct RedirectCase {
    const char* path;
    const char* backing;  // relative to the tree; nullptr: not redirected
};

class GpioRedirectTest : public GpioTest, public ::testing::WithParamInterface<RedirectCase> {};

TEST_P(GpioRedirectTest, TreePathsGoToTheStateFolder)
{
    start();
    std::string target;
    const bool redirected = sim().redirect(GetParam().path, target);
    ASSERT_EQ(redirected, GetParam().backing != nullptr) << GetParam().path;
    if (redirected) {
        const std::string relative = GetParam().backing;
        EXPECT_EQ(target, stateDir() + "/gpio" + (relative.empty() ? "" : "/" + relative));
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, GpioRedirectTest,
                         ::testing::Values(RedirectCase{"/sys/class/gpio", ""},
                                           RedirectCase{"/sys/class/gpio/gpio48", "gpio48"},
                                           RedirectCase{"/sys/class/gpio/gpiochip0", "gpiochip0"},
                                           RedirectCase{"/sys/class/gpio/gpio048", "gpio048"},
                                           RedirectCase{"/sys/class/gpio/export", nullptr},
                                           RedirectCase{"/sys/class/gpio/unexport", nullptr},
                                           RedirectCase{"/sys/class/gpio/gpio48/value", nullptr},
                                           RedirectCase{"/sys/class/gpio/gpio48/edge", nullptr},
                                           RedirectCase{"/sys/class/gpio/gpio48/power", nullptr},
                                           RedirectCase{"/sys/class/gpiox", nullptr},
                                           RedirectCase{"/dev/spidev0.0", nullptr}));

TEST_F(GpioTest, ActiveLowTurnsAnElectricalFallInto_aRisingValue)
{
    boardsim::Options options;
    options.edges = {"2:falling@0.25", "2:rising@0.5"};
    start(options);
    exportLine(2);
    ASSERT_EQ(store(kGpio + "/gpio2/active_low", "1"), 0);
    EXPECT_EQ(show(kGpio + "/gpio2/value"), "0\n");
    EXPECT_EQ(waitForEdge(2, "rising", 1000000000LL), 1);
    EXPECT_EQ(now(), 250000000);
    EXPECT_EQ(waitForEdge(2, "rising", 1000000000LL), 0);  // the next one is a fall for the program
    EXPECT_EQ(now(), 1250000000);
}

TEST_F(GpioTest, LevelHistoryRecordsExportOutputsAndChanges)
{
    start();
    exportLine(48);
    ASSERT_EQ(store(kGpio + "/gpio48/direction", "out"), 0);
    sim().sleep(1000, "test");
    ASSERT_EQ(store(kGpio + "/gpio48/value", "1"), 0);
    ASSERT_EQ(store(kGpio + "/gpio48/value", "1"), 0);  // no change: not recorded
    ASSERT_EQ(run().historyCount, 3U);
    EXPECT_EQ(run().history[0].level, 0);  // exported
    EXPECT_EQ(run().history[1].level, 0);  // became an output
    EXPECT_EQ(run().history[2].level, 1);
    EXPECT_EQ(run().history[2].timeNs, 1000);
}

}  // namespace
}  // namespace boardsim_test
