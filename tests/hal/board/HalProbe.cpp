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

#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Result = std::optional<long long>;
using Operation = std::function<Result(hal::HwAbstractionLayer&, long)>;

const std::map<std::string, Operation> HAL_OPERATIONS = {
    {"get2",
     [](hal::HwAbstractionLayer& h, long) {
         return Result(h.getGpio2Value());
     }},
    {"get48",
     [](hal::HwAbstractionLayer& h, long) {
         return Result(h.getGpio48Value());
     }},
    {"get49",
     [](hal::HwAbstractionLayer& h, long) {
         return Result(h.getGpio49Value());
     }},
    {"get51",
     [](hal::HwAbstractionLayer& h, long) {
         return Result(h.getGpio51Value());
     }},
    {"get143",
     [](hal::HwAbstractionLayer& h, long) {
         return Result(h.getGpio143Value());
     }},
    {"set48",
     [](hal::HwAbstractionLayer& h, long v) {
         return h.setGpio48Value(int(v)), Result();
     }},
    {"set49",
     [](hal::HwAbstractionLayer& h, long v) {
         return h.setGpio49Value(int(v)), Result();
     }},
    {"set51",
     [](hal::HwAbstractionLayer& h, long v) {
         return h.setGpio51Value(int(v)), Result();
     }},
    {"set143",
     [](hal::HwAbstractionLayer& h, long v) {
         return h.setGpio143Value(int(v)), Result();
     }},
    {"toggle49",
     [](hal::HwAbstractionLayer& h, long) {
         return h.toggleGpio49Value(), Result();
     }},
    {"toggle143",
     [](hal::HwAbstractionLayer& h, long) {
         return h.toggleGpio143Value(), Result();
     }},
    {"wait2",
     [](hal::HwAbstractionLayer& h, long s) {
         return Result(h.waitGpio2FallingEdge(s) ? 1 : 0);
     }},
    {"long",
     [](hal::HwAbstractionLayer& h, long) {
         return h.playLongBeep(), Result();
     }},
    {"short",
     [](hal::HwAbstractionLayer& h, long) {
         return h.playShortBeep(), Result();
     }},
    {"double",
     [](hal::HwAbstractionLayer& h, long) {
         return h.playDoubleBeep(), Result();
     }},
    {"same",
     [](hal::HwAbstractionLayer& h, long) {
         return Result(&h == hal::HwAbstractionLayer::getInstance());
     }},
};

std::vector<std::string> split(const std::string& step)
{
    std::vector<std::string> fields;
    std::istringstream in(step);
    for (std::string field; std::getline(in, field, ':');) {
        fields.push_back(field);
    }
    return fields;
}

long number(const std::vector<std::string>& fields, std::size_t index)
{
    return index < fields.size() ? std::stol(fields[index]) : 0;
}

}  // namespace

int main(int argc, char* argv[])
{
    std::vector<std::unique_ptr<GpioPin>> pins;
    std::unique_ptr<hal::HwAbstractionLayerVosta> vosta;
    for (int i = 1; i < argc; ++i) {
        const std::vector<std::string> f = split(argv[i]);
        const std::string& verb = f.empty() ? "" : f[0];
        Result result;
        if (verb == "pin" && f.size() >= 3) {
            pins.push_back(std::make_unique<GpioPin>(int(number(f, 1)), f[2] == "out", f.size() > 3));
        } else if (verb == "mark") {
            ::usleep(static_cast<useconds_t>(number(f, 1)));
        } else if (verb == "melody") {
            melody::Melody device;
            device.melodyPlay(2000, static_cast<unsigned int>(number(f, 1)));
        } else if (verb == "vosta") {
            vosta = std::make_unique<hal::HwAbstractionLayerVosta>();
        } else if (verb == "drop") {
            vosta.reset();
        } else if (verb == "hal" && f.size() >= 2 && HAL_OPERATIONS.count(f[1]) != 0) {
            hal::HwAbstractionLayer* target = vosta ? vosta.get() : hal::HwAbstractionLayer::getInstance();
            result = HAL_OPERATIONS.at(f[1])(*target, number(f, 2));
        } else if (pins.empty()) {
            std::cerr << "hal_board_probe: unknown step or no pin: " << argv[i] << std::endl;
            return 2;
        } else if (verb == "get") {
            result = pins.back()->getValue();
        } else if (verb == "set") {
            pins.back()->setValue(int(number(f, 1)));
        } else if (verb == "toggle") {
            pins.back()->toggleValue();
        } else if (verb == "close") {
            result = pins.back()->closePin();
        } else if (verb == "wait") {
            result = pins.back()->waitForEdge(static_cast<GpioEdge>(number(f, 1)), number(f, 2));
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
