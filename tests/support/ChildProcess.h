// SPDX-License-Identifier: MIT
#pragma once

// Runs a program as a child process with a chosen environment and folder,
// and collects its output and how it ended. Every test that starts a
// process goes through here.

#include <sys/types.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

struct ProcessRequest {
    // argv[0] is a path, or a name looked up on PATH.
    std::vector<std::string> argv;
    // Variables added or replaced in the inherited environment.
    std::vector<std::pair<std::string, std::string>> set;
    // Inherited variables to drop: exact names, or prefixes ending in '*'.
    std::vector<std::string> unset;
    // The file to run when it is not argv[0] (a program run under another
    // name).
    std::string program;
    // Working folder of the child; empty keeps this process's.
    std::string folder;
    // Standard error goes into out as well, in order.
    bool mergeOutput = false;
    // Standard output is a pipe whose reader is gone (writes fail with
    // EPIPE and raise SIGPIPE) instead of a file.
    bool brokenOutput = false;
    // Killed (SIGKILL) after this many seconds of waiting for it; 0: no
    // limit.
    int timeoutSeconds = 0;
};

struct ProcessResult {
    int pid = 0;
    bool exited = false;  // ended through exit()
    int exitCode = -1;    // its status when it did
    int signal = 0;       // the signal that ended it, 0 if none
    bool timedOut = false;
    std::string out;
    std::string err;

    // The shell's convention: the exit code, or 128 + the signal.
    int status() const { return exited ? exitCode : 128 + signal; }
    // One text for failure messages.
    std::string describe() const;
};

class TempFolder;

// A child started by startProcess() and not yet waited for.
class RunningProcess {
public:
    RunningProcess(RunningProcess&& other) noexcept;
    // Kills (SIGKILL) and reaps the child if finish() was not called: a test
    // that failed half-way must not leave it behind.
    ~RunningProcess();

    // The child's pid; -1 if it could not be started or was waited for.
    pid_t pid() const { return m_pid; }
    // Waits for the end of the child (within the request's time-out) and
    // collects it. Once only.
    ProcessResult finish();

private:
    friend RunningProcess startProcess(const ProcessRequest& request);
    RunningProcess();

    pid_t m_pid = -1;
    std::unique_ptr<TempFolder> m_files;  // where the output goes
    bool m_mergeOutput = false;
    int m_timeoutSeconds = 0;
    ProcessResult m_result;  // filled at once when the start failed
};

// Starts the child and returns at once.
RunningProcess startProcess(const ProcessRequest& request);
// Starts the child and waits for it.
ProcessResult runProcess(const ProcessRequest& request);

}  // namespace testsupport
