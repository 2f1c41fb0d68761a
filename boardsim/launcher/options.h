// SPDX-License-Identifier: MIT
// The launcher's command line: boardsim [options] -- COMMAND [ARGS...]
#pragma once

#include <string>
#include <vector>

namespace boardsim {

struct Options {
    std::string stateDir;  // empty: a temporary state folder
    std::string profile = "default";
    bool maxTiming = false;
    std::string tracePath;
    std::string summaryPath;
    std::vector<std::string> faults;
    std::vector<std::string> spidevPaths;
    std::vector<std::string> edges;
    std::string signal;  // --signal SIG@msg:N, empty: none
    std::string preloadPath;
    bool quiet = false;
    bool help = false;
    std::vector<std::string> command;
};

// Fills options from argv. False with a one-line reason in error when the
// command line is not usable (unknown option, missing value, no command).
bool parseOptions(int argc, const char* const* argv, Options& options, std::string& error);

// The usage text for --help.
std::string usageText();

// Splits the BOARDSIM_FAULTS text (comma- or blank-separated) into texts.
std::vector<std::string> splitFaultList(const std::string& text);

}  // namespace boardsim
