// SPDX-License-Identifier: MIT
// What only a fresh process shows (run through thread_probe): the lock
// timeout taken from the environment before main, and the getters of the
// process-wide objects when creation fails.
#include "ChildProcess.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using testsupport::ProcessResult;

ProcessResult runProbe(std::vector<std::string> arguments, std::vector<std::pair<std::string, std::string>> set,
                       std::vector<std::string> unset)
{
    testsupport::ProcessRequest request;
    request.argv = std::move(arguments);
    request.argv.insert(request.argv.begin(), THREAD_PROBE_PATH);
    request.set = std::move(set);
    request.unset = std::move(unset);
    request.mergeOutput = true;
    request.timeoutSeconds = 60;
    return testsupport::runProcess(request);
}

// 15 s, or unlimited (stored as 0, read as a year) when GDB is set, even to
// nothing; a timeout set later is read back as it is.
TEST(ProcessTest, LockTimeoutIsFixedFromTheEnvironmentBeforeMain)
{
    const ProcessResult withoutGdb = runProbe({"timeout"}, {}, {"GDB"});
    EXPECT_EQ("timeout=15 stored=15 then=1\n", withoutGdb.out) << withoutGdb.describe();
    const ProcessResult underGdb = runProbe({"timeout"}, {{"GDB", ""}}, {});
    EXPECT_EQ("timeout=31536000 stored=0 then=1\n", underGdb.out) << underGdb.describe();
}

// The getter logs on "exception_logger" at ERROR from its own source file,
// as the first log statement of the process, and aborts.
TEST(ProcessTest, FailedCreationOfAProcessWideObjectIsLoggedAndAborts)
{
    const std::pair<const char*, const char*> cases[] = {{"lock-class-lock", "Lock.cpp:"},
                                                         {"thread-class-lock", "ThreadHandleMap.cpp:"},
                                                         {"handle-map", "ThreadHandleMap.cpp:"},
                                                         {"logger-class-lock", "ThreadLogger.cpp:"},
                                                         {"scope-map", "ThreadLogger.cpp:"}};
    for (const auto& [getter, source] : cases) {
        const ProcessResult result =
            runProbe({"failed-creation", getter}, {{"LOG4CPLUS_APPENDER", "CONSOLE"}}, {"LOG4CPLUS_LOGGERS"});
        EXPECT_EQ(SIGABRT, result.signal) << getter << ": " << result.describe();
        EXPECT_NE(std::string::npos, result.out.find("ERROR ")) << getter << ": " << result.out;
        EXPECT_NE(std::string::npos, result.out.find(" exception_logger ")) << getter << ": " << result.out;
        EXPECT_NE(std::string::npos, result.out.find(std::string("/") + source)) << getter << ": " << result.out;
        EXPECT_NE(std::string::npos, result.out.find(" [0.000000 sec] - Unexpected exception!\n")) << result.out;
    }
}

}  // namespace
