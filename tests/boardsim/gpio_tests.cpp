// SPDX-License-Identifier: MIT
// sysfs GPIO: export and unexport, attribute stores with the kernel's errors,
// active_low, and edge waits in virtual time.
#include "sim_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

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

    std::string stored(const std::string& relative) { return testsupport::readText(stateDir() + "/gpio/" + relative); }

    void exportLine(int line) { ASSERT_EQ(store(kGpio + "/export", std::to_string(line)), 0); }
};

TEST_F(GpioTest, ExportCreatesTheLineFolderAndRefusesASecondExport)
{
    exportLine(48);
    EXPECT_EQ(stored("gpio48/value") + stored("gpio48/direction") + stored("gpio48/active_low") + stored("gpio48/edge"),
              "0\nin\n0\nnone\n");
    EXPECT_EQ(store(kGpio + "/export", "48"), EBUSY);
    EXPECT_EQ(store(kGpio + "/unexport", "48"), 0);
    EXPECT_FALSE(inTree("gpio48"));
    EXPECT_EQ(store(kGpio + "/unexport", "48"), EINVAL);
}

// Line numbers are read as the kernel reads them (any base, one trailing
// line end); an export-refused fault answers its errno.
TEST_F(GpioTest, ExportNumbersAreReadLikeTheKernelReadsThem)
{
    boardsim::Options options;
    options.faults = {"export-refused:5", "export-refused:6:EPERM"};
    start(options);
    const std::string lowest = std::to_string(LONG_MIN);  // the lowest long: a number, but no line
    const struct {
        const char* text;
        int err;
        const char* folder;
    } cases[] = {{"0x30", 0, "gpio48"},   {"143\n", 0, "gpio143"},  {"223", 0, "gpio223"},
                 {" 2", EINVAL, nullptr}, {"2 ", EINVAL, nullptr},  {"2\n\n", EINVAL, nullptr},
                 {"-1", EINVAL, nullptr}, {"224", EINVAL, nullptr}, {"99999999999999999999", ERANGE, nullptr},
                 {"5", EBUSY, nullptr},   {"6", EPERM, nullptr},    {lowest.c_str(), EINVAL, nullptr},
                 {"7", 0, "gpio7"}};
    for (const auto& exported : cases) {
        SCOPED_TRACE(exported.text);
        EXPECT_EQ(store(kGpio + "/export", exported.text), exported.err);
        if (exported.folder != nullptr) {
            EXPECT_TRUE(inTree(exported.folder));
        }
    }
    EXPECT_EQ(run().historyCount, 4U);  // only the exported lines
}

TEST_F(GpioTest, ValueStoresFollowDirectionAndActiveLow)
{
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
    EXPECT_EQ(stored("gpio51/value") + stored("gpio51/direction"), "0\nout\n");
    // An armed line is an interrupt: it cannot become an output, and an
    // output cannot be armed.
    exportLine(2);
    EXPECT_EQ(store(kGpio + "/gpio2/edge", "falling"), 0);
    EXPECT_EQ(store(kGpio + "/gpio2/direction", "out"), EIO);
    EXPECT_EQ(store(kGpio + "/gpio2/edge", "none"), 0);
    EXPECT_EQ(store(kGpio + "/gpio2/direction", "out"), 0);
    EXPECT_EQ(store(kGpio + "/gpio2/edge", "rising"), EIO);
    EXPECT_EQ(store(kGpio + "/gpio2/edge", "sometimes"), EINVAL);
}

TEST_F(GpioTest, OpensFollowSysfsRules)
{
    EXPECT_EQ(open((kGpio + "/export").c_str(), O_RDONLY), -EACCES);
    EXPECT_EQ(open((kGpio + "/gpio48/value").c_str(), O_RDWR), -ENOENT);
    exportLine(48);
    EXPECT_EQ(open((kGpio + "/gpio48/color").c_str(), O_WRONLY | O_CREAT), -EACCES);
    EXPECT_EQ(open((kGpio + "/gpio48/color").c_str(), O_RDONLY), -ENOENT);
    const int fd = open((kGpio + "/gpio48/value").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(store(kGpio + "/unexport", "48"), 0);
    EXPECT_EQ(readText(fd), "error " + std::to_string(ENODEV));
    close(fd);
}

TEST_F(GpioTest, ReadsAndSeeksWorkOnTheShownText)
{
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

TEST_F(GpioTest, UnexportKeepsTheElectricalStateAndClearsTheFlags)
{
    exportLine(48);
    ASSERT_EQ(store(kGpio + "/gpio48/direction", "out"), 0);
    ASSERT_EQ(store(kGpio + "/gpio48/active_low", "1"), 0);
    sim().sleep(1000, "test");
    ASSERT_EQ(store(kGpio + "/gpio48/value", "0"), 0);  // electrical 1
    ASSERT_EQ(store(kGpio + "/gpio48/value", "0"), 0);  // no change: not recorded
    // The level history: exported, became an output, went high.
    ASSERT_EQ(run().historyCount, 3U);
    EXPECT_EQ(run().history[1].level, 0);
    EXPECT_EQ(run().history[2].level, 1);
    EXPECT_EQ(run().history[2].timeNs, 1000);
    ASSERT_EQ(store(kGpio + "/unexport", "48"), 0);
    exportLine(48);
    EXPECT_EQ(show(kGpio + "/gpio48/direction") + show(kGpio + "/gpio48/active_low") + show(kGpio + "/gpio48/value"),
              "out\n0\n1\n");
}

// A wait on a value file: read it (acknowledging past edges), arm an edge and
// poll for POLLPRI in virtual time. Scripted edges are electrical; with
// active_low the program sees a fall as a rise.
struct EdgeWaitCase {
    std::vector<std::string> edges;
    bool activeLow;
    const char* edge;
    std::int64_t timeoutNs;
    int result;
    std::int64_t endNs;
    const char* valueAfter;
};

class EdgeWaitTest : public GpioTest, public ::testing::WithParamInterface<EdgeWaitCase> {};

TEST_P(EdgeWaitTest, PollEndsAtTheEdgeOrTheTimeOut)
{
    const EdgeWaitCase& wait = GetParam();
    boardsim::Options options;
    options.edges = wait.edges;
    start(options);
    exportLine(2);
    const std::string line = kGpio + "/gpio2";
    ASSERT_EQ(store(line + "/active_low", wait.activeLow ? "1" : "0"), 0);
    ASSERT_EQ(store(line + "/edge", wait.edge), 0);
    const int fd = open((line + "/value").c_str(), O_RDONLY);
    readText(fd);
    pollfd watched{fd, POLLPRI, 0};
    const timespec timeout{static_cast<time_t>(wait.timeoutNs / 1000000000),
                           static_cast<long>(wait.timeoutNs % 1000000000)};
    const auto served = sim().poll(&watched, 1, &timeout, nullptr);
    ASSERT_TRUE(served);
    EXPECT_EQ(served->result, wait.result);
    EXPECT_EQ(watched.revents, wait.result == 1 ? POLLPRI | POLLERR : 0);
    EXPECT_EQ(now(), wait.endNs);
    close(fd);
    EXPECT_EQ(show(line + "/value"), wait.valueAfter);
}

INSTANTIATE_TEST_SUITE_P(
    Edges, EdgeWaitTest,
    ::testing::Values(EdgeWaitCase{{"2:falling@1.5"}, false, "falling", 5000000000, 1, 1500000000, "0\n"},
                      EdgeWaitCase{{"2:falling@1.5"}, false, "rising", 3000000000, 0, 3000000000, "0\n"},
                      EdgeWaitCase{{"2:falling@1.5"}, false, "both", 0, 0, 0, "1\n"},  // no edge yet: at once
                      EdgeWaitCase{{"2:falling@0.25", "2:rising@0.5"}, true, "rising", 1000000000, 1, 250000000, "1\n"},
                      EdgeWaitCase{{"2:rising@0.5"}, true, "rising", 1000000000, 0, 1000000000, "0\n"}));

// A poll with a real descriptor in the set waits for real (briefly here);
// one without a time-out waits for the next edge in virtual time. Each poll
// of a value file is traced with its time-out (null: none) and outcome.
TEST_F(GpioTest, PollsWithRealDescriptorsOrWithoutTimeOut)
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
    const timespec brief{0, 1000000};
    EXPECT_EQ(sim().poll(withReal, 2, &brief, nullptr).value_or(boardsim::Served<int>{-1, 0}).result, 0);
    // A zero time-out still asks the real descriptors.
    ASSERT_EQ(::write(pipeEnds[1], "x", 1), 1);
    const timespec none{0, 0};
    EXPECT_EQ(sim().poll(withReal, 2, &none, nullptr).value_or(boardsim::Served<int>{-1, 0}).result, 1);
    EXPECT_EQ(withReal[1].revents, POLLIN);
    EXPECT_FALSE(sim().poll(&withReal[1], 1, &none, nullptr)) << "a poll of real descriptors only is not served";
    EXPECT_EQ(sim().poll(withReal, 1, nullptr, nullptr).value_or(boardsim::Served<int>{-1, 0}).result, 1);
    EXPECT_EQ(now(), 1000000000);
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
    const std::string trace = testsupport::readText(options.tracePath);
    EXPECT_NE(trace.find("\"line\":2,\"timeout_ns\":1000000,\"result\":\"timeout\"}"), std::string::npos) << trace;
    EXPECT_NE(trace.find("\"line\":2,\"timeout_ns\":null,\"result\":\"edge\"}"), std::string::npos) << trace;
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
                                           RedirectCase{"/sys/class/gpio/gpio048", "gpio048"},
                                           RedirectCase{"/sys/class/gpio/export", nullptr},
                                           RedirectCase{"/sys/class/gpio/gpio48/value", nullptr},
                                           RedirectCase{"/sys/class/gpio/gpio48/power", nullptr},
                                           RedirectCase{"/sys/class/gpiox", nullptr},
                                           RedirectCase{"/dev/spidev0.0", nullptr}));

}  // namespace
}  // namespace boardsim_test
