// SPDX-License-Identifier: MIT
// Turns the launcher's options into the run block's configuration.
#pragma once

#include "options.h"
#include "run_block.h"

#include <string>

namespace boardsim {

// Adds one --fault FAULT to faults. False with a reason when FAULT is not valid.
bool parseFault(const std::string& text, Faults& faults, std::string& error);

// Parses LINE:rising|falling@SECONDS. False with a reason when not valid.
bool parseEdge(const std::string& text, EdgeEvent& event, std::string& error);

// Fills config from options; stateDir is the absolute state folder and
// faultList the extra faults from the environment.
bool buildRunConfig(const Options& options, const std::string& stateDir, const std::vector<std::string>& faultList,
                    RunConfig& config, std::string& error);

// Everything a run needs before the command starts: the configuration, the
// state folder (created or checked), the GPIO lines it holds, the scripted
// lines' starting levels.
bool setUpRun(const Options& options, const std::string& stateDir, const std::vector<std::string>& faultList,
              RunBlock& block, std::string& error);

// path made absolute against the working folder and normalised lexically
// (no symbolic links resolved).
std::string absolutePath(const std::string& path);

}  // namespace boardsim
