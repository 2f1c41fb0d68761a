// SPDX-License-Identifier: MIT
// Runs one scenario of the HAL's pieces on the simulated board and prints
// what the calls returned as "key=value" lines; the board tests check those
// lines together with the simulator's trace.
//
//   hal_board_probe SCENARIO

#include "hal/HwAbstractionLayer.h"
#include "hal/vosta/GpioPin.h"
#include "hal/vosta/HwAbstractionLayerVosta.h"
#include "hal/vosta/Melody.h"

#include <unistd.h>

#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>

namespace {

void print(const char* key, long long value)
{
    std::cout << key << "=" << value << std::endl;
}

// Marks a point in the run: the simulator traces the sleep.
void mark(unsigned int microseconds)
{
    ::usleep(microseconds);
}

const std::map<std::string, std::function<void()>> SCENARIOS = {
    // First use of an output line through each operation.
    {"first-use-get",
     [] {
         GpioPin pin(49, true, false);
         print("value", pin.getValue());
     }},
    {"first-use-set",
     [] {
         GpioPin pin(49, true, false);
         pin.setValue(1);
     }},
    {"first-use-toggle",
     [] {
         GpioPin pin(49, true, false);
         pin.toggleValue();
     }},
    {"first-use-wait",
     [] {
         GpioPin pin(2, false, true);
         print("result", pin.waitForEdge(EDGE_FALLING, 0));
     }},
    {"two-operations",
     [] {
         GpioPin pin(51, true, false);
         pin.setValue(1);
         mark(7);  // separates the first operation from the second in the trace
         pin.setValue(0);
         print("value", pin.getValue());
     }},
    {"toggle",
     [] {
         GpioPin pin(143, true, false);
         pin.setValue(0);
         pin.toggleValue();
         mark(8);  // the toggled level must be written by now
         print("after-first", pin.getValue());
         pin.toggleValue();
         print("after-second", pin.getValue());
     }},
    {"unreadable-value",
     [] {
         GpioPin pin(51, true, false);
         print("value", pin.getValue());
         pin.toggleValue();
         print("value-after-toggle", pin.getValue());
     }},
    {"wait-none",
     [] {
         GpioPin pin(2, false, true);
         pin.getValue();
         mark(7);
         print("result", pin.waitForEdge(EDGE_NONE, 1));
     }},
    {"wait-output",
     [] {
         GpioPin pin(49, true, false);
         pin.getValue();
         mark(7);
         print("result", pin.waitForEdge(EDGE_FALLING, 1));
     }},
    {"wait-timeout",
     [] {
         GpioPin pin(2, false, true);
         print("result", pin.waitForEdge(EDGE_FALLING, 3));
     }},
    {"wait-edge",
     [] {
         GpioPin pin(2, false, true);
         print("result", pin.waitForEdge(EDGE_FALLING, 5));
     }},
    {"wait-rising-both",
     [] {
         GpioPin pin(2, false, false);
         print("rising", pin.waitForEdge(EDGE_RISING, 2));
         print("both", pin.waitForEdge(EDGE_BOTH, 2));
     }},
    {"close-pin",
     [] {
         GpioPin pin(49, true, false);
         pin.setValue(1);
         mark(7);
         print("result", pin.closePin());
         mark(8);
     }},
    {"close-then-reopen",
     [] {
         GpioPin pin(49, true, false);
         pin.setValue(1);
         print("closed", pin.closePin());
         mark(7);
         pin.setValue(0);
         mark(8);
     }},
    {"destroy-unused",
     [] {
         GpioPin pin(49, true, false);
     }},
    {"destroy-after-use",
     [] {
         GpioPin pin(49, true, false);
         pin.setValue(1);
         mark(7);
     }},
    // The HAL operations that the tool itself never calls.
    {"hal-instance",
     [] {
         hal::HwAbstractionLayer* first = hal::HwAbstractionLayer::getInstance();
         hal::HwAbstractionLayer* second = hal::HwAbstractionLayer::getInstance();
         print("same", first == second ? 1 : 0);
     }},
    {"hal-lines",
     [] {
         hal::HwAbstractionLayer* hal = hal::HwAbstractionLayer::getInstance();
         hal->setGpio51Value(1);
         print("gpio51", hal->getGpio51Value());
         hal->setGpio49Value(1);
         hal->toggleGpio49Value();
         print("gpio49", hal->getGpio49Value());
         hal->setGpio143Value(0);
         hal->toggleGpio143Value();
         print("gpio143", hal->getGpio143Value());
         hal->setGpio48Value(1);
         print("gpio48", hal->getGpio48Value());
         print("gpio2", hal->getGpio2Value());
     }},
    {"hal-wait-edge",
     [] {
         hal::HwAbstractionLayer* hal = hal::HwAbstractionLayer::getInstance();
         print("first", hal->waitGpio2FallingEdge(4) ? 1 : 0);
         print("second", hal->waitGpio2FallingEdge(1) ? 1 : 0);
     }},
    {"hal-beeps",
     [] {
         hal::HwAbstractionLayer* hal = hal::HwAbstractionLayer::getInstance();
         mark(7);
         hal->playLongBeep();
         mark(8);
         hal->playShortBeep();
         mark(9);
         hal->playDoubleBeep();
     }},
    {"melody-zero-duration",
     [] {
         melody::Melody device;
         mark(7);
         device.melodyPlay(2000, 0);
     }},
    {"hal-destroy",
     [] {
         auto hal = std::make_unique<hal::HwAbstractionLayerVosta>();
         hal->setGpio51Value(1);
         mark(7);
         hal.reset();
     }},
};

}  // namespace

int main(int argc, char* argv[])
{
    if (argc != 2 || SCENARIOS.count(argv[1]) == 0) {
        std::cerr << "usage: hal_board_probe SCENARIO" << std::endl;
        return 2;
    }
    SCENARIOS.at(argv[1])();
    return 0;
}
