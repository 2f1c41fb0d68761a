// SPDX-License-Identifier: MIT
// The simulator's --fault option texts, several in a row as the launcher
// takes them (one a line here), into one fault set.
#include "FuzzInput.h"
#include "run_config.h"

#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::istringstream lines(fuzz::textOf(data, size));
    boardsim::Faults faults{};
    std::string line;
    while (std::getline(lines, line)) {
        std::string error;
        const bool valid = boardsim::parseFault(line, faults, error);
        fuzz::require(valid == error.empty());
        fuzz::require(faults.msgCount <= static_cast<std::uint32_t>(boardsim::kMaxMsgFaults));
        fuzz::require(faults.flipCount <= static_cast<std::uint32_t>(boardsim::kMaxFlips));
    }
    return 0;
}
