// SPDX-License-Identifier: MIT
// What only a fresh process shows: the lock timeout taken from the
// environment before main, the first use of every process-wide object from
// many threads at once, the catch-all handlers of the getters, and the
// one-time installation of the interrupt signal's handler.
#include "ChildProcess.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>

#include <cstdlib>

#include <string>
#include <vector>
#include <utility>

namespace {

using testsupport::ProcessResult;

// Runs thread_probe with the given arguments; its environment is this
// process's with `set` added and `unset` removed.
ProcessResult runProbe(std::vector<std::string> arguments, std::vector<std::pair<std::string, std::string>> set = {},
                       std::vector<std::string> unset = {})
{
    arguments.insert(arguments.begin(), THREAD_PROBE_PATH);
    testsupport::ProcessRequest request;
    request.argv = std::move(arguments);
    request.set = std::move(set);
    request.unset = std::move(unset);
    request.mergeOutput = true;
    request.timeoutSeconds = 60;
    return testsupport::runProcess(request);
}

::testing::AssertionResult exitedCleanly(const ProcessResult& result)
{
    if (result.exited && result.exitCode == 0) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << result.describe();
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

TEST(LockTimeoutTest, FifteenSecondsWithoutGdb)
{
    const ProcessResult result = runProbe({"timeout"}, {}, {"GDB"});
    ASSERT_TRUE(exitedCleanly(result));
    EXPECT_TRUE(contains(result.out, "getTimeout=15 setTimeout(7)=15 then getTimeout=7")) << result.out;
}

TEST(LockTimeoutTest, UnlimitedUnderGdbWhateverItsValue)
{
    for (const char* value : {"1", "", "no"}) {
        const ProcessResult result = runProbe({"timeout"}, {{"GDB", value}});
        ASSERT_TRUE(exitedCleanly(result)) << "GDB=" << value;
        EXPECT_TRUE(contains(result.out, "getTimeout=31536000 setTimeout(7)=0 then getTimeout=7"))
            << "GDB=" << value << ": " << result.out;
    }
}

class ClassObjectTest : public ::testing::TestWithParam<const char*> {};

TEST_P(ClassObjectTest, ConcurrentFirstCallersGetOneObject)
{
    const ProcessResult result = runProbe({"first-use", GetParam()});
    ASSERT_TRUE(exitedCleanly(result));
    EXPECT_TRUE(contains(result.out, "threads=16 distinct=1 null=0")) << result.out;
}

// The getter logs on "exception_logger" at ERROR from its own source file,
// as the first log statement of the process, and aborts.
TEST_P(ClassObjectTest, FailedCreationIsLoggedAndAborts)
{
    const ProcessResult result =
        runProbe({"failed-creation", GetParam()}, {{"LOG4CPLUS_APPENDER", "CONSOLE"}}, {"LOG4CPLUS_LOGGERS"});
    EXPECT_EQ(result.signal, SIGABRT) << result.out;
    EXPECT_FALSE(contains(result.out, "the getter returned"));
    const std::string getter = GetParam();
    const std::string source = getter == "lock-class-lock"                               ? "Lock.cpp:"
                               : getter == "thread-class-lock" || getter == "handle-map" ? "ThreadHandleMap.cpp:"
                                                                                         : "ThreadLogger.cpp:";
    const std::size_t record = result.out.find("ERROR ");
    ASSERT_NE(std::string::npos, record) << result.out;
    const std::string line = result.out.substr(record, result.out.find('\n', record) - record);
    EXPECT_TRUE(contains(line, " exception_logger ")) << line;
    EXPECT_TRUE(contains(line, source)) << line;
    EXPECT_TRUE(contains(line, "[0.000000 sec] - Unexpected exception!")) << line;
}

INSTANTIATE_TEST_SUITE_P(AllGetters, ClassObjectTest,
                         ::testing::Values("lock-class-lock", "thread-class-lock", "handle-map", "logger-class-lock",
                                           "scope-map"));

// The handler goes in once, over whatever was there, and keeps the earlier
// handler's mask and flags except SA_RESTART (blocking calls must see EINTR).
class InterruptHandlerTest : public ::testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(InterruptHandlerTest, InstalledOnceKeepingTheEarlierMaskAndFlags)
{
    const ProcessResult result = runProbe({"interrupt-handler", GetParam().first});
    ASSERT_TRUE(exitedCleanly(result));
    EXPECT_TRUE(contains(result.out, GetParam().second)) << result.out;
    EXPECT_TRUE(contains(result.out, "second-construction-kept-handler=1")) << result.out;
}

INSTANTIATE_TEST_SUITE_P(
    EarlierHandlers, InterruptHandlerTest,
    ::testing::Values(std::make_pair("default", "handler-replaced=1 siginfo=0 onstack=0 restart=0 usr1-masked=0"),
                      std::make_pair("plain", "handler-replaced=1 siginfo=0 onstack=1 restart=0 usr1-masked=1"),
                      std::make_pair("siginfo", "handler-replaced=1 siginfo=1 onstack=1 restart=0 usr1-masked=1")));

TEST(ForeignUnlockTest, MutexAndMonitorPassTheFailureOn)
{
    const char* const sanitizerOptions = std::getenv("TSAN_OPTIONS");
    const std::string options =
        std::string(sanitizerOptions != nullptr ? sanitizerOptions : "") + ":report_mutex_bugs=0";
    const ProcessResult result = runProbe({"foreign-unlock"}, {{"TSAN_OPTIONS", options}});
    ASSERT_TRUE(exitedCleanly(result));
    const std::string expected =
        "mutex-unlock=" + std::to_string(EPERM) + " monitor-unlock=" + std::to_string(EPERM) + " still-held=1";
    EXPECT_TRUE(contains(result.out, expected)) << result.out;
}

}  // namespace
