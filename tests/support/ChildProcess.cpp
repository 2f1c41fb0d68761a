// SPDX-License-Identifier: MIT
#include "ChildProcess.h"

#include "TempFolder.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

extern char** environ;

namespace testsupport {
namespace {

// The inherited environment less the variables to drop or replace, then the
// ones to set.
std::vector<std::string> environmentOf(const ProcessRequest& request)
{
    std::vector<std::string> entries;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string name = std::string(*entry).substr(0, std::string(*entry).find('='));
        bool dropped = false;
        for (const auto& variable : request.set) {
            dropped = dropped || variable.first == name;
        }
        for (const std::string& pattern : request.unset) {
            const bool prefix = !pattern.empty() && pattern.back() == '*';
            dropped = dropped || (prefix ? name.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0
                                         : name == pattern);
        }
        if (!dropped) {
            entries.emplace_back(*entry);
        }
    }
    for (const auto& variable : request.set) {
        entries.push_back(variable.first + "=" + variable.second);
    }
    return entries;
}

std::vector<char*> pointers(std::vector<std::string>& texts)
{
    std::vector<char*> result;
    for (std::string& text : texts) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

// Waits for the child, killing it once the time-out has passed. Polls in
// 10 ms steps rather than reading a clock: tests may script the clock.
int waitFor(pid_t child, int timeoutSeconds, bool& timedOut)
{
    int status = 0;
    for (long step = 0;; ++step) {
        const pid_t done = ::waitpid(child, &status, WNOHANG);
        if (done == child || (done < 0 && errno != EINTR)) {
            return status;
        }
        if (timeoutSeconds > 0 && step == timeoutSeconds * 100L) {
            timedOut = true;
            ::kill(child, SIGKILL);
        }
        ::poll(nullptr, 0, 10);
    }
}

}  // namespace

std::string ProcessResult::describe() const
{
    return std::string(timedOut ? "timed out, " : "") + (exited ? "exit " : "signal ") +
           std::to_string(exited ? exitCode : signal) + "\n--- stdout\n" + out + "--- stderr\n" + err;
}

RunningProcess::RunningProcess() = default;

RunningProcess::RunningProcess(RunningProcess&& other) noexcept
    : m_pid(std::exchange(other.m_pid, -1)), m_files(std::move(other.m_files)), m_mergeOutput(other.m_mergeOutput),
      m_timeoutSeconds(other.m_timeoutSeconds), m_result(std::move(other.m_result))
{
}

RunningProcess::~RunningProcess()
{
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        bool timedOut = false;
        waitFor(m_pid, 0, timedOut);
    }
}

RunningProcess startProcess(const ProcessRequest& request)
{
    RunningProcess running;
    running.m_files = std::make_unique<TempFolder>("merivak-child");
    running.m_mergeOutput = request.mergeOutput;
    running.m_timeoutSeconds = request.timeoutSeconds;
    const std::string outPath = running.m_files->path("out");
    const std::string errPath = running.m_files->path("err");
    std::vector<std::string> argumentTexts = request.argv;
    std::vector<std::string> environmentTexts = environmentOf(request);
    std::vector<char*> argv = pointers(argumentTexts);
    std::vector<char*> envp = pointers(environmentTexts);

    // Both ends close on exec; the child gets the writing end as its
    // standard output, and this process closes both once it started.
    int ends[2] = {-1, -1};
    if (request.brokenOutput && ::pipe2(ends, O_CLOEXEC) != 0) {
        std::abort();  // without the pipe nothing the test does is meaningful
    }

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (request.brokenOutput) {
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    }
    if (request.mergeOutput) {
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    }
    if (!request.folder.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, request.folder.c_str());
    }
    pid_t child = 0;
    const std::string program = !request.program.empty() ? request.program
                                : request.argv.empty()   ? ""
                                                         : request.argv[0];
    // A name without '/' is looked up on PATH, a path is run as it is.
    const int spawnError = ::posix_spawnp(&child, program.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (request.brokenOutput) {
        ::close(ends[0]);
        ::close(ends[1]);
    }
    if (spawnError != 0) {
        // As a shell reports a program it cannot find or run.
        running.m_result.exited = true;
        running.m_result.exitCode = spawnError == ENOENT ? 127 : 126;
        running.m_result.err = "cannot run " + program + ": " + std::strerror(spawnError);
        return running;
    }
    running.m_pid = child;
    return running;
}

ProcessResult RunningProcess::finish()
{
    if (m_pid <= 0) {
        return m_result;
    }
    ProcessResult result;
    result.pid = std::exchange(m_pid, -1);
    const int status = waitFor(result.pid, m_timeoutSeconds, result.timedOut);
    result.exited = WIFEXITED(status);
    result.exitCode = result.exited ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.out = readText(m_files->path("out"));
    result.err = m_mergeOutput ? std::string() : readText(m_files->path("err"));
    return result;
}

ProcessResult runProcess(const ProcessRequest& request)
{
    return startProcess(request).finish();
}

}  // namespace testsupport
