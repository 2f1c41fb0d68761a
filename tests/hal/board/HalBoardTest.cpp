// SPDX-License-Identifier: MIT
// The GPIO pin, the melody device and the HAL operations that the tool never
// calls, run by hal_board_probe on the simulated board and checked through
// the simulator's trace.

#include "SimulatedBoard.h"

#include <gtest/gtest.h>

#include <QJsonArray>

#include <algorithm>
#include <sstream>

using namespace boardtest;

namespace {

class HalOnBoard : public ::testing::Test {
protected:
    RunResult probe(const std::string& scenario, const RunSettings& settings = {}) const
    {
        RunResult run = m_board.run({HAL_PROBE_BINARY, scenario}, settings);
        EXPECT_EQ(run.status, 0) << run.describe();
        return run;
    }

    // The value the probe printed for key, "" if none.
    static std::string printed(const RunResult& run, const std::string& key)
    {
        std::istringstream lines(run.out);
        std::string line;
        while (std::getline(lines, line)) {
            if (line.rfind(key + "=", 0) == 0) {
                return line.substr(key.size() + 1);
            }
        }
        return "";
    }

    // "path=data:result" of every gpio_write from trace index `from` on (up
    // to `to`, exclusive, if given).
    static std::vector<std::string> writes(const RunResult& run, std::size_t from = 0,
                                           std::size_t to = static_cast<std::size_t>(-1))
    {
        std::vector<std::string> found;
        for (std::size_t i = from; i < run.trace.size() && i < to; ++i) {
            const QJsonObject& event = run.trace[i];
            if (text(event.value(QStringLiteral("ev"))) == "gpio_write") {
                found.push_back(text(event.value(QStringLiteral("path"))) + "=" +
                                text(event.value(QStringLiteral("data"))) + ":" +
                                text(event.value(QStringLiteral("result"))));
            }
        }
        return found;
    }

    // Trace index of the probe's marker sleep of `us` microseconds.
    static std::size_t marker(const RunResult& run, std::int64_t us)
    {
        for (std::size_t i = 0; i < run.trace.size(); ++i) {
            const QJsonObject& event = run.trace[i];
            if (text(event.value(QStringLiteral("ev"))) == "sleep" &&
                integer(event.value(QStringLiteral("us"))) == us) {
                return i;
            }
        }
        ADD_FAILURE() << "marker " << us << " missing";
        return run.trace.size();
    }

    static std::vector<std::string> opened(const RunResult& run, std::size_t from = 0)
    {
        std::vector<std::string> found;
        for (std::size_t i = from; i < run.trace.size(); ++i) {
            const QJsonObject& event = run.trace[i];
            const std::string path = text(event.value(QStringLiteral("path")));
            // The export and unexport files are opened by every pin's constructor.
            if (text(event.value(QStringLiteral("ev"))) == "gpio_open" && path != "export" && path != "unexport") {
                found.push_back(path);
            }
        }
        return found;
    }

    SimulatedBoard m_board;
};

// ---- GpioPin: first use -------------------------------------------------------

TEST_F(HalOnBoard, FirstUseOfAnOutputReleasesExportsAndConfiguresInOrder)
{
    const std::vector<std::string> setUp = {"unexport=49:EINVAL", "export=49:ok", "gpio49/active_low=0:ok",
                                            "gpio49/direction=out:ok"};
    {
        const RunResult run = probe("first-use-get");
        std::vector<std::string> expected = setUp;
        expected.push_back("unexport=49:ok");  // the destructor
        EXPECT_EQ(writes(run), expected);
        EXPECT_EQ(printed(run, "value"), "0");
        // Value, active_low and direction are opened in this order.
        EXPECT_EQ(opened(run), (std::vector<std::string>{"gpio49/value", "gpio49/active_low", "gpio49/direction"}));
    }
    SimulatedBoard fresh;
    {
        const RunResult run = fresh.run({HAL_PROBE_BINARY, "first-use-set"});
        std::vector<std::string> expected = setUp;
        expected.push_back("gpio49/value=1:ok");  // exactly one byte, no newline
        expected.push_back("unexport=49:ok");     // the destructor
        EXPECT_EQ(writes(run), expected);
    }
}

TEST_F(HalOnBoard, FirstUseOfAnActiveLowInputConfiguresItAsSuch)
{
    const RunResult run = probe("first-use-wait");
    const std::vector<std::string> all = writes(run);
    ASSERT_GE(all.size(), 4U);
    EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + 4),
              (std::vector<std::string>{"unexport=2:EINVAL", "export=2:ok", "gpio2/active_low=1:ok",
                                        "gpio2/direction=in:ok"}));
}

TEST_F(HalOnBoard, SecondOperationWritesNoSetUpAgain)
{
    const RunResult run = probe("two-operations");
    EXPECT_EQ(writes(run, marker(run, 7)), (std::vector<std::string>{"gpio51/value=0:ok", "unexport=51:ok"}));
    EXPECT_EQ(printed(run, "value"), "0");
    EXPECT_TRUE(opened(run, marker(run, 7)).empty()) << "the attribute files stay open";
}

TEST_F(HalOnBoard, ToggleWritesTheInverseOfTheLevelRead)
{
    const RunResult run = probe("toggle");
    const std::vector<std::string> values = [&] {
        std::vector<std::string> v;
        for (const std::string& w : writes(run)) {
            if (w.rfind("gpio143/value=", 0) == 0) {
                v.push_back(w);
            }
        }
        return v;
    }();
    EXPECT_EQ(values, (std::vector<std::string>{"gpio143/value=0:ok", "gpio143/value=1:ok", "gpio143/value=0:ok"}));
    const std::vector<std::string> beforeMark = writes(run, 0, marker(run, 8));
    EXPECT_EQ(beforeMark.back(), "gpio143/value=1:ok") << "the toggle is delivered at once";
    EXPECT_EQ(printed(run, "after-first"), "1");
    EXPECT_EQ(printed(run, "after-second"), "0");
}

// A line that cannot be exported has no value file: it reads as 0 and writes
// to it are dropped.
TEST_F(HalOnBoard, UnreadableValueReadsAsZero)
{
    RunSettings settings;
    settings.simulatorOptions = {"--fault", "export-refused:51"};
    const RunResult run = probe("unreadable-value", settings);
    EXPECT_EQ(printed(run, "value"), "0");
    EXPECT_EQ(printed(run, "value-after-toggle"), "0");
    for (const std::string& w : writes(run)) {
        EXPECT_EQ(w.find("gpio51/"), std::string::npos) << w;
    }
}

// ---- GpioPin: edge waits ------------------------------------------------------

TEST_F(HalOnBoard, WaitForNoEdgeFailsWithoutOpeningAnything)
{
    const RunResult run = probe("wait-none");
    EXPECT_EQ(printed(run, "result"), "2");  // WAIT_FAILED
    EXPECT_TRUE(opened(run, marker(run, 7)).empty());
    EXPECT_TRUE(writes(run, marker(run, 7), run.trace.size()).size() <= 1U) << "at most the destructor's unexport";
    EXPECT_TRUE(run.events("gpio_poll").empty());
}

TEST_F(HalOnBoard, WaitOnAnOutputFailsWithoutOpeningAnything)
{
    const RunResult run = probe("wait-output");
    EXPECT_EQ(printed(run, "result"), "2");
    EXPECT_TRUE(opened(run, marker(run, 7)).empty());
    EXPECT_TRUE(run.events("gpio_poll").empty());
}

TEST_F(HalOnBoard, WaitWithoutAnEdgeTimesOutInVirtualTime)
{
    const RunResult run = probe("wait-timeout");
    EXPECT_EQ(printed(run, "result"), "1");  // WAIT_TIMEOUT
    const std::vector<QJsonObject> polls = run.events("gpio_poll");
    ASSERT_EQ(polls.size(), 1U);
    EXPECT_EQ(integer(polls[0].value(QStringLiteral("line"))), 2);
    EXPECT_EQ(integer(polls[0].value(QStringLiteral("timeout_ns"))), 3000000000LL);
    EXPECT_EQ(text(polls[0].value(QStringLiteral("result"))), "timeout");
    EXPECT_GE(run.boardTimeNs(), 3000000000LL);
    // The edge word is written as one word and never set back to "none".
    std::vector<std::string> edgeWrites;
    for (const std::string& w : writes(run)) {
        if (w.rfind("gpio2/edge=", 0) == 0) {
            edgeWrites.push_back(w);
        }
    }
    EXPECT_EQ(edgeWrites, std::vector<std::string>{"gpio2/edge=falling:ok"});
}

TEST_F(HalOnBoard, WaitSeesAScriptedEdge)
{
    // Line 2 is active-low: an electrical rise is a falling edge for the pin.
    RunSettings settings;
    settings.simulatorOptions = {"--edge", "2:rising@1.5"};
    const RunResult run = probe("wait-edge", settings);
    EXPECT_EQ(printed(run, "result"), "0");  // WAIT_EDGE
    const std::vector<QJsonObject> polls = run.events("gpio_poll");
    ASSERT_EQ(polls.size(), 1U);
    EXPECT_EQ(text(polls[0].value(QStringLiteral("result"))), "edge");
    EXPECT_LT(run.boardTimeNs(), 5000000000LL) << "the wait ends at the edge, not at the time-out";
}

TEST_F(HalOnBoard, WaitArmsTheEdgeItWasAskedFor)
{
    RunSettings settings;
    settings.simulatorOptions = {"--edge", "2:rising@1"};
    const RunResult run = probe("wait-rising-both", settings);
    EXPECT_EQ(printed(run, "rising"), "0");
    EXPECT_EQ(printed(run, "both"), "1") << "no second edge is scripted";
    const std::vector<std::string> all = writes(run);
    EXPECT_NE(std::find(all.begin(), all.end(), "gpio2/edge=rising:ok"), all.end());
    EXPECT_NE(std::find(all.begin(), all.end(), "gpio2/edge=both:ok"), all.end());
    // Each wait closes the value file it polled: the second gets the same
    // descriptor number again.
    std::vector<std::int64_t> valueFds;
    for (const QJsonObject& open : run.events("gpio_open")) {
        if (text(open.value(QStringLiteral("path"))) == "gpio2/value") {
            valueFds.push_back(integer(open.value(QStringLiteral("fd"))));
        }
    }
    ASSERT_GE(valueFds.size(), 2U);
    EXPECT_EQ(valueFds[valueFds.size() - 1], valueFds[valueFds.size() - 2]);
}

// ---- GpioPin: closing and destruction --------------------------------------

TEST_F(HalOnBoard, ClosePinUnexportsAndTheDestructorSendsNothingMore)
{
    const RunResult run = probe("close-pin");
    EXPECT_EQ(printed(run, "result"), "0");
    EXPECT_EQ(writes(run, marker(run, 7), marker(run, 8)), std::vector<std::string>{"unexport=49:ok"});
    EXPECT_TRUE(writes(run, marker(run, 8)).empty());
    EXPECT_FALSE(fileExists(m_board.stateFolder() + "/gpio/gpio49"));
}

TEST_F(HalOnBoard, OperationAfterClosePinExportsAgain)
{
    const RunResult run = probe("close-then-reopen");
    EXPECT_EQ(printed(run, "closed"), "0");
    // The unexport stream is closed: its write is dropped; the export works.
    EXPECT_EQ(writes(run, marker(run, 7), marker(run, 8)),
              (std::vector<std::string>{"export=49:ok", "gpio49/active_low=0:ok", "gpio49/direction=out:ok",
                                        "gpio49/value=0:ok"}));
    EXPECT_TRUE(writes(run, marker(run, 8)).empty()) << "no unexport from a closed stream";
}

TEST_F(HalOnBoard, UnusedPinStillUnexportsItsLine)
{
    const RunResult run = probe("destroy-unused");
    EXPECT_EQ(writes(run), std::vector<std::string>{"unexport=49:EINVAL"});
}

// The unexport that the first use sent to a line that was not exported was
// refused and stayed in the stream's buffer; the destructor's own write is
// dropped, and the close delivers the buffered number.
TEST_F(HalOnBoard, DestructorDeliversTheBufferedUnexport)
{
    const RunResult run = probe("destroy-after-use");
    EXPECT_EQ(writes(run, 0, marker(run, 7)).front(), "unexport=49:EINVAL");
    EXPECT_EQ(writes(run, marker(run, 7)), std::vector<std::string>{"unexport=49:ok"});
    EXPECT_FALSE(fileExists(m_board.stateFolder() + "/gpio/gpio49"));
}

// ---- HAL operations ------------------------------------------------------------

TEST_F(HalOnBoard, InstanceIsMadeOnceAndLeavesTheLinesAlone)
{
    const RunResult run = probe("hal-instance");
    EXPECT_EQ(printed(run, "same"), "1");
    EXPECT_EQ(run.events("spi_open").size(), 1U);
    EXPECT_EQ(run.events("melody_open").size(), 1U);
    EXPECT_TRUE(run.events("gpio_write").empty()) << "lines are set up on first use only";
    EXPECT_TRUE(opened(run).empty());
    // Each of the five pins opens the export and unexport files.
    EXPECT_EQ(run.events("gpio_open").size(), 10U);
    EXPECT_TRUE(run.events("spi_close").empty()) << "the instance is never destroyed";
}

TEST_F(HalOnBoard, LineOperationsReachTheirLines)
{
    const RunResult run = probe("hal-lines");
    EXPECT_EQ(printed(run, "gpio51"), "1");
    EXPECT_EQ(printed(run, "gpio49"), "0");
    EXPECT_EQ(printed(run, "gpio143"), "1");
    EXPECT_EQ(printed(run, "gpio48"), "1");
    EXPECT_EQ(printed(run, "gpio2"), "1") << "active-low input at electrical 0 reads 1";
    const std::vector<std::string> all = writes(run);
    for (const char* expected :
         {"gpio51/value=1:ok", "gpio49/value=1:ok", "gpio49/value=0:ok", "gpio143/value=0:ok", "gpio143/value=1:ok",
          "gpio48/value=1:ok", "gpio2/active_low=1:ok", "gpio2/direction=in:ok"}) {
        EXPECT_NE(std::find(all.begin(), all.end(), expected), all.end()) << expected;
    }
    EXPECT_EQ(run.violationsTotal(), 0);
}

TEST_F(HalOnBoard, FallingEdgeWaitIsTrueOnlyForAnEdge)
{
    RunSettings settings;
    settings.simulatorOptions = {"--edge", "2:rising@2"};
    const RunResult run = probe("hal-wait-edge", settings);
    EXPECT_EQ(printed(run, "first"), "1");
    EXPECT_EQ(printed(run, "second"), "0") << "a time-out is false";
}

TEST_F(HalOnBoard, FallingEdgeWaitIsFalseWhenTheLineCannotWait)
{
    // Export refused: the direction file cannot be read, the value file
    // cannot be opened, and the wait fails.
    RunSettings settings;
    settings.simulatorOptions = {"--fault", "export-refused:2"};
    const RunResult run = probe("hal-wait-edge", settings);
    EXPECT_EQ(printed(run, "first"), "0");
    EXPECT_EQ(printed(run, "second"), "0");
    EXPECT_TRUE(run.events("gpio_poll").empty());
}

// Sound on/off times of the summary's melody timeline, after the set-up cycle.
std::vector<std::pair<std::int64_t, bool>> soundTimeline(const RunResult& run)
{
    std::vector<std::pair<std::int64_t, bool>> timeline;
    const QJsonArray entries =
        run.summary.value(QStringLiteral("melody")).toObject().value(QStringLiteral("timeline")).toArray();
    for (const QJsonValue& entry : entries) {
        const QJsonArray item = entry.toArray();
        timeline.emplace_back(integer(item.at(0)), text(item.at(1)) == "on");
    }
    return timeline;
}

TEST_F(HalOnBoard, BeepsSoundForTheirDurations)
{
    const RunResult run = probe("hal-beeps");
    const auto timeline = soundTimeline(run);
    // The set-up cycle, the long beep, the short beep and two for the double.
    ASSERT_EQ(timeline.size(), 10U) << run.describe();
    EXPECT_EQ(timeline[1].first - timeline[0].first, 0) << "set-up cycle: START then STOP at once";
    const std::vector<std::int64_t> durations = {500000000, 30000000, 76000000, 76000000};
    for (std::size_t k = 0; k < durations.size(); ++k) {
        const auto& on = timeline[2 + 2 * k];
        const auto& off = timeline[3 + 2 * k];
        EXPECT_TRUE(on.second);
        EXPECT_FALSE(off.second);
        EXPECT_GE(off.first - on.first, durations[k]) << "beep " << k;
        EXPECT_LT(off.first - on.first, durations[k] + 1000000) << "beep " << k;
    }
    // 38 ms between the two sounds of the double beep.
    EXPECT_GE(timeline[8].first - timeline[7].first, 38000000);
    EXPECT_LT(timeline[8].first - timeline[7].first, 39000000);
    // Every beep opens and closes the device anew.
    EXPECT_EQ(run.events("melody_open").size(), 5U);
    EXPECT_EQ(run.events("melody_close").size(), 5U);
    EXPECT_EQ(run.events("melody_ioctl").size(), 15U);
    EXPECT_TRUE(run.logMessages().empty()) << run.log;
}

TEST_F(HalOnBoard, BeepsWithoutTheDeviceLogEveryRequestAndStillTakeTheirTime)
{
    RunSettings settings;
    settings.simulatorOptions = {"--fault", "no-melody"};
    const RunResult run = probe("hal-beeps", settings);
    // Three records for each of the five cycles.
    EXPECT_EQ(run.logRecords("ERROR", "Melody type cannot be sent -> ERRNO : 9").size(), 5U);
    EXPECT_EQ(run.logRecords("ERROR", "Melody START cannot be sent -> ERRNO : 9").size(), 5U);
    EXPECT_EQ(run.logRecords("ERROR", "Melody STOP cannot be sent -> ERRNO : 9").size(), 5U);
    EXPECT_GE(run.boardTimeNs(), (500 + 30 + 76 + 38 + 76) * 1000000LL);
}

TEST_F(HalOnBoard, ZeroDurationMelodySendsAllThreeRequests)
{
    const RunResult run = probe("melody-zero-duration");
    const std::size_t from = marker(run, 7);
    std::vector<std::string> requests;
    for (std::size_t i = from; i < run.trace.size(); ++i) {
        const QJsonObject& event = run.trace[i];
        if (text(event.value(QStringLiteral("ev"))) == "melody_ioctl") {
            requests.push_back(text(event.value(QStringLiteral("req"))) + ":" +
                               text(event.value(QStringLiteral("bytes"))));
        }
    }
    EXPECT_EQ(requests, (std::vector<std::string>{"TYPE:01000000d0070000", "START_STOP:01", "START_STOP:00"}));
    std::size_t zeroSleeps = 0;
    for (const QJsonObject& sleep : run.events("sleep")) {
        zeroSleeps += integer(sleep.value(QStringLiteral("us"))) == 0 ? 1 : 0;
    }
    EXPECT_EQ(zeroSleeps, 1U);
}

// Destroying the board implementation unexports the five lines in member
// order, then closes the SPI device.
TEST_F(HalOnBoard, DestroyedHalReleasesLinesInOrderThenClosesTheBus)
{
    const RunResult run = probe("hal-destroy");
    EXPECT_EQ(writes(run, marker(run, 7)),
              (std::vector<std::string>{"unexport=2:EINVAL", "unexport=48:EINVAL", "unexport=51:ok",
                                        "unexport=49:EINVAL", "unexport=143:EINVAL"}));
    const std::vector<QJsonObject> closes = run.events("spi_close");
    ASSERT_EQ(closes.size(), 1U);
    EXPECT_GT(run.indexOf(closes[0]), static_cast<int>(marker(run, 7)));
}

}  // namespace
