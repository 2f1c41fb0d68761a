// SPDX-License-Identifier: MIT
#ifndef MERIVAK_TESTS_LOGGING_TESTFILES_H
#define MERIVAK_TESTS_LOGGING_TESTFILES_H

// Small helpers shared by the logging tests: whole-file reads and bounded
// polling.

#include "TempFolder.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace logtest {

using TempDir = testsupport::TempFolder;

using testsupport::readText;
inline std::string readFile(const std::string& path)
{
    return readText(path);
}

inline std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// Polls until done() holds; gives up after a limit generous enough for a
// slow, loaded machine. Returns done()'s last answer.
inline bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(20))
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return done();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace logtest

#endif
