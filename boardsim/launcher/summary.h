// SPDX-License-Identifier: MIT
// What the launcher reports at the end of a run, from the run block.
#pragma once

#include "run_block.h"

#include <string>

namespace boardsim {

// The --summary file: one JSON object (and a line end).
std::string summaryJson(const RunBlock& run, int status);

// The short report on stderr.
std::string summaryText(const RunBlock& run);

}  // namespace boardsim
