// SPDX-License-Identifier: MIT
#include "ProbeRunner.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

extern char** environ;

namespace {

std::vector<std::string> probeEnvironment(const std::map<std::string, std::string>& set,
                                          const std::vector<std::string>& unset)
{
    std::vector<std::string> entries;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        const std::string name = text.substr(0, text.find('='));
        const bool dropped = set.count(name) != 0 || std::find(unset.begin(), unset.end(), name) != unset.end();
        if (!dropped) {
            entries.push_back(text);
        }
    }
    for (const auto& variable : set) {
        entries.push_back(variable.first + "=" + variable.second);
    }
    return entries;
}

std::vector<char*> pointers(std::vector<std::string>& texts)
{
    std::vector<char*> result;
    for (std::string& text : texts) {
        result.push_back(&text[0]);
    }
    result.push_back(nullptr);
    return result;
}

}  // namespace

ProbeResult runProbe(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& set,
                     const std::vector<std::string>& unset)
{
    ProbeResult result;
    std::vector<std::string> argumentTexts{THREAD_PROBE_PATH};
    argumentTexts.insert(argumentTexts.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environmentTexts = probeEnvironment(set, unset);
    std::vector<char*> argv = pointers(argumentTexts);
    std::vector<char*> envp = pointers(environmentTexts);

    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) {
        result.output = "pipe failed";
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[1]);
    pid_t child = 0;
    const int spawnError = posix_spawn(&child, THREAD_PROBE_PATH, &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(pipeEnds[1]);
    if (spawnError != 0) {
        close(pipeEnds[0]);
        result.output = std::string("posix_spawn failed: ") + std::strerror(spawnError);
        return result;
    }

    char buffer[4096];
    for (;;) {
        const ssize_t count = read(pipeEnds[0], buffer, sizeof buffer);
        if (count > 0) {
            result.output.append(buffer, static_cast<size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    close(pipeEnds[0]);

    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.exited = true;
        result.exitStatus = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signalled = true;
        result.signal = WTERMSIG(status);
    }
    return result;
}
