// SPDX-License-Identifier: MIT
// One run of the launcher: options, state folder, run block, the command
// with the preload library, the summary.
#pragma once

namespace boardsim {

// The launcher's whole job; returns its exit status.
int runLauncher(int argc, const char* const* argv);

}  // namespace boardsim
