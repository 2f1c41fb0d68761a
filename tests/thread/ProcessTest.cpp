// SPDX-License-Identifier: MIT
// What only a fresh process shows: the lock timeout taken from the
// environment before main, the first use of every process-wide object from
// many threads at once, the catch-all handlers of the getters, and the
// one-time installation of the interrupt signal's handler.
#include "ProbeRunner.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <signal.h>

#include <cstdlib>

#include <string>

namespace {

::testing::AssertionResult exitedCleanly(const ProbeResult& result)
{
    if (result.exited && result.exitStatus == 0) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "probe ended with " << (result.exited ? "status " : "signal ")
                                         << (result.exited ? result.exitStatus : result.signal) << ", output:\n"
                                         << result.output;
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

TEST(LockTimeoutTest, FifteenSecondsWithoutGdb)
{
    const ProbeResult result = runProbe({"timeout"}, {}, {"GDB"});
    ASSERT_TRUE(exitedCleanly(result));
    EXPECT_TRUE(contains(result.output, "getTimeout=15 setTimeout(7)=15 then getTimeout=7")) << result.output;
}

TEST(LockTimeoutTest, UnlimitedUnderGdbWhateverItsValue)
{
    for (const char* value : {"1", "", "no"}) {
        const ProbeResult result = runProbe({"timeout"}, {{"GDB", value}});
        ASSERT_TRUE(exitedCleanly(result)) << "GDB=" << value;
        EXPECT_TRUE(contains(result.output, "getTimeout=31536000 setTimeout(7)=0 then getTimeout=7"))
            << "GDB=" << value << ": " << result.output;
    }
}

class ClassObjectTest : public ::testing::TestWithParam<const char*> {};

TEST_P(ClassObjectTest, ConcurrentFirstCallersGetOneObject)
{
    const ProbeResult result = runProbe({"first-use", GetParam()});
    ASSERT_TRUE(exitedCleanly(result));
    EXPECT_TRUE(contains(result.output, "threads=16 distinct=1 null=0")) << result.output;
}

// The getter logs on "exception_logger" at ERROR from its own source file,
// as the first log statement of the process, and aborts.
TEST_P(ClassObjectTest, FailedCreationIsLoggedAndAborts)
{
    const ProbeResult result =
        runProbe({"failed-creation", GetParam()}, {{"LOG4CPLUS_APPENDER", "CONSOLE"}}, {"LOG4CPLUS_LOGGERS"});
    EXPECT_TRUE(result.signalled && result.signal == SIGABRT) << result.output;
    EXPECT_FALSE(contains(result.output, "the getter returned"));
    const std::string getter = GetParam();
    const std::string source = getter == "lock-class-lock"                               ? "Lock.cpp:"
                               : getter == "thread-class-lock" || getter == "handle-map" ? "ThreadHandleMap.cpp:"
                                                                                         : "ThreadLogger.cpp:";
    const std::size_t record = result.output.find("ERROR ");
    ASSERT_NE(std::string::npos, record) << result.output;
    const std::string line = result.output.substr(record, result.output.find('\n', record) - record);
    EXPECT_TRUE(contains(line, " exception_logger ")) << line;
    EXPECT_TRUE(contains(line, source)) << line;
    EXPECT_TRUE(contains(line, "[0.000000 sec] - Unexpected exception!")) << line;
}

INSTANTIATE_TEST_SUITE_P(AllGetters, ClassObjectTest,
                         ::testing::Values("lock-class-lock", "thread-class-lock", "handle-map", "logger-class-lock",
                                           "scope-map"));

TEST(InterruptHandlerTest, InstalledOnceOverTheDefaultAction)
{
    const ProbeResult result = runProbe({"interrupt-handler", "default"});
    ASSERT_TRUE(exitedCleanly(result));
    EXPECT_TRUE(contains(result.output, "handler-replaced=1 siginfo=0 onstack=0 restart=0 usr1-masked=0"))
        << result.output;
    EXPECT_TRUE(contains(result.output, "second-construction-kept-handler=1")) << result.output;
}

TEST(InterruptHandlerTest, KeepsMaskAndFlagsOfAOneArgumentHandler)
{
    const ProbeResult result = runProbe({"interrupt-handler", "plain"});
    ASSERT_TRUE(exitedCleanly(result));
    EXPECT_TRUE(contains(result.output, "handler-replaced=1 siginfo=0 onstack=1 restart=0 usr1-masked=1"))
        << result.output;
    EXPECT_TRUE(contains(result.output, "second-construction-kept-handler=1")) << result.output;
}

TEST(InterruptHandlerTest, KeepsMaskAndFlagsOfAThreeArgumentHandler)
{
    const ProbeResult result = runProbe({"interrupt-handler", "siginfo"});
    ASSERT_TRUE(exitedCleanly(result));
    EXPECT_TRUE(contains(result.output, "handler-replaced=1 siginfo=1 onstack=1 restart=0 usr1-masked=1"))
        << result.output;
    EXPECT_TRUE(contains(result.output, "second-construction-kept-handler=1")) << result.output;
}

TEST(ForeignUnlockTest, MutexAndMonitorPassTheFailureOn)
{
    const char* const sanitizerOptions = std::getenv("TSAN_OPTIONS");
    const std::string options =
        std::string(sanitizerOptions != nullptr ? sanitizerOptions : "") + ":report_mutex_bugs=0";
    const ProbeResult result = runProbe({"foreign-unlock"}, {{"TSAN_OPTIONS", options}});
    ASSERT_TRUE(exitedCleanly(result));
    const std::string expected =
        "mutex-unlock=" + std::to_string(EPERM) + " monitor-unlock=" + std::to_string(EPERM) + " still-held=1";
    EXPECT_TRUE(contains(result.output, expected)) << result.output;
}

}  // namespace
