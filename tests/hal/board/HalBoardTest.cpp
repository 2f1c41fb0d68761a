// SPDX-License-Identifier: MIT
// The GPIO pin, the melody device and the HAL operations that the tool never
// calls, run step by step by hal_board_probe on the simulated board and
// checked through what the steps returned and the simulator's trace.

#include "SimulatedBoard.h"

#include <gtest/gtest.h>

using namespace boardtest;

namespace {

// The trace as one line of words, in order:
//   unexport=49:EINVAL           a GPIO write, its text and its result
//   gpio49/value                 an attribute file opened by a pin's set-up
//   gpio2/value#new              the edge wait's own descriptor: "again" when
//                                it has the previous one's number (that one
//                                was closed), "failed" when the open failed
//   poll:3000000000:timeout      an edge wait, its time-out and its end
//   sleep:7                      a sleep of that many microseconds
//   melody TYPE:01000000d0070000 START_STOP:01 close   the sound device
//   spi spi-close                the SPI device opened and closed
// The export and unexport files every pin opens when it is made are left out.
std::string story(const RunResult& run)
{
    std::string words;
    std::string waitFd;
    for (const QJsonObject& event : run.trace) {
        const auto field = [&](const char* name) {
            return text(event.value(QLatin1String(name)));
        };
        const std::string ev = field("ev");
        std::string word;
        if (ev == "gpio_write") {
            word = field("path") + "=" + field("data") + ":" + field("result");
        } else if (ev == "gpio_open" && field("path") != "export" && field("path") != "unexport") {
            word = field("path");
            if (field("flags") == "0") {
                const std::string fd = field("fd");
                word += fd == "-1" ? "#failed" : fd == waitFd ? "#again" : "#new";
                waitFd = fd;
            }
        } else if (ev == "gpio_poll") {
            word = "poll:" + field("timeout_ns") + ":" + field("result");
        } else if (ev == "sleep") {
            word = "sleep:" + field("us");
        } else if (ev == "melody_open" || ev == "spi_open") {
            word = ev == "spi_open" ? "spi" : "melody";
        } else if (ev == "melody_ioctl") {
            word = field("req") + ":" + field("bytes");
        } else if (ev == "melody_close" || ev == "spi_close") {
            word = ev == "spi_close" ? "spi-close" : "close";
        }
        if (!word.empty()) {
            words += (words.empty() ? "" : " ") + word;
        }
    }
    return words;
}

// The words of a pin's first use: the line is released, exported, its value,
// active_low and direction files opened in this order, then configured.
std::string firstUse(const std::string& line, const char* activeLow, const char* direction)
{
    const std::string dir = "gpio" + line + "/";
    return "unexport=" + line + ":EINVAL export=" + line + ":ok " + dir + "value " + dir + "active_low " + dir +
           "direction " + dir + "active_low=" + activeLow + ":ok " + dir + "direction=" + direction + ":ok";
}

// The melody device's cycle, with the sleep between START and STOP if any.
std::string cycle(const std::string& sleep = "")
{
    return "melody TYPE:01000000d0070000 START_STOP:01 " + (sleep.empty() ? "" : "sleep:" + sleep + " ") +
           "START_STOP:00 close";
}

// The HAL instance's construction: the SPI device, then one silent cycle.
const std::string HAL_MADE = "spi " + cycle();

struct Scenario {
    const char* name;
    std::vector<std::string> steps;
    std::vector<std::string> simulatorOptions;
    std::string printed;
    std::string story;
    std::size_t errorRecords = 0;  // in the log
};

class HalOnBoard : public ::testing::TestWithParam<Scenario> {};

TEST_P(HalOnBoard, StepsReturnAndSendWhatTheyShould)
{
    const Scenario& c = GetParam();
    SimulatedBoard board;
    RunSettings settings;
    settings.simulatorOptions = c.simulatorOptions;
    settings.environment = {{"LOG4CPLUS_APPENDER", "FILE"}};
    std::vector<std::string> command = {HAL_PROBE_BINARY};
    command.insert(command.end(), c.steps.begin(), c.steps.end());
    const RunResult run = board.run(command, settings);
    ASSERT_EQ(run.status, 0) << run.describe();
    EXPECT_EQ(run.out, c.printed);
    EXPECT_EQ(story(run), c.story);
    EXPECT_EQ(run.logRecords("ERROR").size(), c.errorRecords) << run.log;
    EXPECT_EQ(run.violationsTotal(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Scenarios, HalOnBoard,
    ::testing::Values(
        // A pin never used still unexports its line when it goes.
        Scenario{"FirstUseThroughGet",
                 {"pin:143:out", "pin:49:out", "get"},
                 {},
                 "0 ",
                 firstUse("49", "0", "out") + " unexport=49:ok unexport=143:EINVAL"},
        // The value is one byte without a newline; a second operation sets
        // nothing up again; a toggle writes the inverse of the level read at
        // once; the destructor's unexport follows the refused first one.
        Scenario{"SetToggleGet",
                 {"pin:51:out", "set:1", "mark:7", "set:0", "toggle", "mark:8", "get", "toggle", "get"},
                 {},
                 "1 0 ",
                 firstUse("51", "0", "out") +
                     " gpio51/value=1:ok sleep:7 gpio51/value=0:ok gpio51/value=1:ok sleep:8 gpio51/value=0:ok "
                     "unexport=51:ok"},
        // A line that cannot be exported has no value file: it reads as 0
        // and writes to it are dropped.
        Scenario{"UnexportableLineReadsZero",
                 {"pin:51:out", "get", "toggle", "get"},
                 {"--fault", "export-refused:51"},
                 "0 0 ",
                 "unexport=51:EINVAL export=51:EBUSY gpio51/value gpio51/active_low gpio51/direction "
                 "export=51:EBUSY unexport=51:EINVAL"},
        // No edge, an edge index past the table and an output: the wait
        // fails without touching a file.
        Scenario{"WaitsThatCannotApply",
                 {"pin:49:out", "get", "pin:2:in:low", "get", "mark:7", "wait:0:1", "wait:4:1", "pin:48:out", "get",
                  "wait:2:1"},
                 {},
                 "0 1 2 2 0 2 ",
                 firstUse("49", "0", "out") + " " + firstUse("2", "1", "in") + " sleep:7 " +
                     firstUse("48", "0", "out") + " unexport=48:ok unexport=2:ok unexport=49:ok"},
        // Line 2 is active-low: the electrical rise at 4 s is a falling edge.
        // Each wait arms the edge asked for, polls for its time in virtual
        // time and closes its descriptor.
        Scenario{"EdgeWaits",
                 {"pin:2:in:low", "wait:2:3", "wait:3:5", "wait:1:1"},
                 {"--edge", "2:rising@4"},
                 "1 0 1 ",
                 firstUse("2", "1", "in") +
                     " gpio2/edge gpio2/edge=falling:ok gpio2/value#new poll:3000000000:timeout gpio2/edge "
                     "gpio2/edge=both:ok gpio2/value#again poll:5000000000:edge gpio2/edge gpio2/edge=rising:ok "
                     "gpio2/value#again poll:1000000000:timeout unexport=2:ok"},
        // closePin unexports; the next operation exports again, and then
        // neither it nor the destructor can unexport: that stream is closed.
        Scenario{"CloseThenUseAgain",
                 {"pin:49:out", "set:1", "mark:7", "close", "mark:8", "set:0"},
                 {},
                 "0 ",
                 firstUse("49", "0", "out") + " gpio49/value=1:ok sleep:7 unexport=49:ok sleep:8 export=49:ok " +
                     "gpio49/value gpio49/active_low gpio49/direction gpio49/active_low=0:ok "
                     "gpio49/direction=out:ok gpio49/value=0:ok"},
        // The instance is made once and sets no line up before its first use.
        Scenario{"InstanceMadeOnce", {"hal:same"}, {}, "1 ", HAL_MADE},
        Scenario{"LineOperationsReachTheirLines",
                 {"hal:set51:1", "hal:get51", "hal:set49:1", "hal:toggle49", "hal:get49", "hal:set143:0",
                  "hal:toggle143", "hal:get143", "hal:set48:1", "hal:get48", "hal:get2"},
                 {},
                 // Line 2 is an active-low input at electrical 0.
                 "1 0 1 1 1 ",
                 HAL_MADE + " " + firstUse("51", "0", "out") + " gpio51/value=1:ok " + firstUse("49", "0", "out") +
                     " gpio49/value=1:ok gpio49/value=0:ok " + firstUse("143", "0", "out") +
                     " gpio143/value=0:ok gpio143/value=1:ok " + firstUse("48", "0", "out") + " gpio48/value=1:ok " +
                     firstUse("2", "1", "in")},
        Scenario{"FallingEdgeWaitIsTrueOnlyForAnEdge",
                 {"hal:wait2:4", "hal:wait2:1"},
                 {"--edge", "2:rising@2"},
                 "1 0 ",
                 HAL_MADE + " " + firstUse("2", "1", "in") +
                     " gpio2/edge gpio2/edge=falling:ok gpio2/value#new poll:4000000000:edge gpio2/edge "
                     "gpio2/edge=falling:ok gpio2/value#again poll:1000000000:timeout"},
        Scenario{"FallingEdgeWaitFailsOnALineThatCannotBeExported",
                 {"hal:wait2:4"},
                 {"--fault", "export-refused:2"},
                 "0 ",
                 HAL_MADE + " unexport=2:EINVAL export=2:EBUSY gpio2/value gpio2/active_low gpio2/direction gpio2/edge "
                            "gpio2/value#failed"},
        // Each beep opens the device anew and sounds for its time; the double
        // beep pauses 38 ms between its two sounds.
        Scenario{"Beeps",
                 {"hal:long", "hal:short", "hal:double"},
                 {},
                 "",
                 HAL_MADE + " " + cycle("500000") + " " + cycle("30000") + " " + cycle("76000") + " sleep:38000 " +
                     cycle("76000")},
        // Without the device each request fails and is logged (the first
        // record makes the logging show its setting), and the beep still
        // takes its time.
        Scenario{"BeepWithoutTheDevice",
                 {"hal:short"},
                 {"--fault", "no-melody"},
                 "\nLOG4CPLUS_APPENDER=FILE\n",
                 "spi melody melody sleep:30000",
                 6},
        Scenario{"ZeroDurationMelodySleepsZero", {"melody:0"}, {}, "", cycle() + " " + cycle("0")},
        // Destroying the board implementation unexports the five lines in
        // member order, then closes the SPI device.
        Scenario{"DestroyedHalReleasesLinesThenTheBus",
                 {"vosta", "hal:set51:1", "mark:7", "drop"},
                 {},
                 "",
                 HAL_MADE + " " + firstUse("51", "0", "out") +
                     " gpio51/value=1:ok sleep:7 unexport=2:EINVAL unexport=48:EINVAL unexport=51:ok "
                     "unexport=49:EINVAL unexport=143:EINVAL spi-close"}),
    [](const ::testing::TestParamInfo<Scenario>& param) { return std::string(param.param.name); });

}  // namespace
