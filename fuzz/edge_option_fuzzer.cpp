// SPDX-License-Identifier: MIT
// The simulator's --edge option text: a valid edge names a line the board
// has, a level of 0 or 1 and a time that is not negative.
#include "FuzzInput.h"
#include "run_config.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    boardsim::EdgeEvent edge{};
    std::string error;
    const bool valid = boardsim::parseEdge(fuzz::textOf(data, size), edge, error);
    fuzz::require(valid == error.empty());
    if (valid) {
        fuzz::require(edge.line >= 0 && edge.line < boardsim::kGpioLines);
        fuzz::require(edge.level == 0 || edge.level == 1);
        fuzz::require(edge.timeNs >= 0);
    }
    return 0;
}
