// SPDX-License-Identifier: MIT
#ifndef MERIVAK_TESTS_THREAD_PROBERUNNER_H
#define MERIVAK_TESTS_THREAD_PROBERUNNER_H

// Runs the thread_probe helper as a child process, for what only a fresh
// process shows: start-up from the environment, the first use of
// process-wide objects, and catch-all handlers that abort.

#include <map>
#include <string>
#include <vector>

struct ProbeResult {
    bool exited = false;     // ended through exit()
    int exitStatus = -1;     // its status when it did
    bool signalled = false;  // ended by a signal
    int signal = 0;          // that signal
    std::string output;      // standard output and standard error together
};

// The probe's environment is this process's, with each entry of `set`
// added or replaced and each name in `unset` removed.
ProbeResult runProbe(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& set = {},
                     const std::vector<std::string>& unset = {});

#endif
