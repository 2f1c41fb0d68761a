// SPDX-License-Identifier: MIT
// Runs the HAL's pieces on the simulated board one step at a time and prints
// what the steps returned, separated by spaces; the board tests check that
// together with the simulator's trace.
//
//   hal_board_probe STEP...
//
//   pin:N:out|in[:low]  makes a GpioPin; the pin steps below use the last one
//   get set:V toggle close wait:EDGE:SECONDS
//   hal:OPERATION[:ARG] calls the HAL instance, or the board implementation
//                       made by "vosta" until "drop" destroys it
//   melody:MS           makes a Melody device and plays for MS milliseconds
//   mark:US             sleeps US microseconds, a marker in the trace
// Pins still alive at the end are destroyed last made first.

#include "hal/HwAbstractionLayer.h"
#include "hal/vosta/GpioPin.h"
#include "hal/vosta/HwAbstractionLayerVosta.h"
#include "hal/vosta/Melody.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Hal = hal::HwAbstractionLayer;

const std::map<std::string, int (Hal::*)()> HAL_GETTERS = {{"get2", &Hal::getGpio2Value},
                                                           {"get48", &Hal::getGpio48Value},
                                                           {"get49", &Hal::getGpio49Value},
                                                           {"get51", &Hal::getGpio51Value},
                                                           {"get143", &Hal::getGpio143Value}};
const std::map<std::string, void (Hal::*)(int)> HAL_SETTERS = {{"set48", &Hal::setGpio48Value},
                                                               {"set49", &Hal::setGpio49Value},
                                                               {"set51", &Hal::setGpio51Value},
                                                               {"set143", &Hal::setGpio143Value}};
const std::map<std::string, void (Hal::*)()> HAL_ACTIONS = {{"toggle49", &Hal::toggleGpio49Value},
                                                            {"toggle143", &Hal::toggleGpio143Value},
                                                            {"long", &Hal::playLongBeep},
                                                            {"short", &Hal::playShortBeep},
                                                            {"double", &Hal::playDoubleBeep}};

}  // namespace

int main(int argc, char* argv[])
{
    std::vector<std::unique_ptr<GpioPin>> pins;
    std::unique_ptr<hal::HwAbstractionLayerVosta> vosta;
    for (int i = 1; i < argc; ++i) {
        std::string step = argv[i];
        std::replace(step.begin(), step.end(), ':', ' ');
        std::istringstream fields(step);
        std::string verb;
        std::string name;
        long number = 0;
        fields >> verb;
        std::optional<long long> result;
        if (verb == "pin" && fields >> number >> name) {
            pins.push_back(std::make_unique<GpioPin>(int(number), name == "out", bool(fields >> name)));
        } else if (verb == "mark" && fields >> number) {
            ::usleep(static_cast<useconds_t>(number));
        } else if (verb == "melody" && fields >> number) {
            melody::Melody device;
            device.melodyPlay(2000, static_cast<unsigned int>(number));
        } else if (verb == "vosta") {
            vosta = std::make_unique<hal::HwAbstractionLayerVosta>();
        } else if (verb == "drop") {
            vosta.reset();
        } else if (verb == "hal" && fields >> name) {
            fields >> number;
            Hal& target = vosta ? *vosta : *Hal::getInstance();
            if (HAL_GETTERS.count(name) != 0) {
                result = (target.*HAL_GETTERS.at(name))();
            } else if (HAL_SETTERS.count(name) != 0) {
                (target.*HAL_SETTERS.at(name))(int(number));
            } else if (HAL_ACTIONS.count(name) != 0) {
                (target.*HAL_ACTIONS.at(name))();
            } else if (name == "wait2") {
                result = target.waitGpio2FallingEdge(number) ? 1 : 0;
            } else if (name == "same") {
                result = &target == Hal::getInstance() ? 1 : 0;
            } else {
                std::cerr << "hal_board_probe: unknown HAL operation " << name << std::endl;
                return 2;
            }
        } else if (pins.empty()) {
            std::cerr << "hal_board_probe: unknown step or no pin: " << argv[i] << std::endl;
            return 2;
        } else if (verb == "get") {
            result = pins.back()->getValue();
        } else if (verb == "set" && fields >> number) {
            pins.back()->setValue(int(number));
        } else if (verb == "toggle") {
            pins.back()->toggleValue();
        } else if (verb == "close") {
            result = pins.back()->closePin();
        } else if (verb == "wait" && fields >> number) {
            long seconds = 0;
            fields >> seconds;
            result = pins.back()->waitForEdge(static_cast<GpioEdge>(number), seconds);
        } else {
            std::cerr << "hal_board_probe: unknown step " << argv[i] << std::endl;
            return 2;
        }
        if (result) {
            std::cout << *result << " " << std::flush;
        }
    }
    while (!pins.empty()) {
        pins.pop_back();
    }
    return 0;
}
