// SPDX-License-Identifier: MIT
// The chip profiles the launcher offers with --profile.
#pragma once

#include "run_block.h"

#include <string>
#include <vector>

namespace boardsim {

// The profile called name, or nullptr when there is none.
const ChipProfile* findChipProfile(const std::string& name);

// Names of all profiles, for the usage text and error messages.
std::vector<std::string> chipProfileNames();

}  // namespace boardsim
