// SPDX-License-Identifier: MIT
#include "TestAppender.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace logtest;
using testsupport::readText;

namespace {

std::string banner(const std::string& path)
{
    return "\n*\n* Process writing to " + path + " was restarted\n*\n\n";
}

class ThrowingErrorHandler : public log4cplus::ErrorHandler {
public:
    void error(const log4cplus::tstring& message) override { throw std::runtime_error(message); }
    void reset() override {}
};

class AppenderTest : public ::testing::Test {
protected:
    testsupport::TempFolder dir;
    const std::string path = dir.path("test.log");
};

TEST_F(AppenderTest, OnlyCommitsWriteTheCacheInOrderAfterTheBannerOfEveryStart)
{
    std::ofstream(path) << "earlier process\n";
    TestAppender(path, LARGE_ROLLOVER, 50, NEVER).destroy();
    const std::string started = "earlier process\n" + banner(path) + banner(path);
    TestAppender appender(path, LARGE_ROLLOVER, 50, NEVER);
    appender.manualCommits();
    appender.logRecords(1, 3);
    EXPECT_EQ(readText(path), started);
    appender->commit();
    EXPECT_EQ(readText(path), started + records(1, 3));
    appender->commit();  // nothing cached: nothing written
    // The destructor commits what is left.
    appender.logRecords(4, 5);
    appender.destroy();
    EXPECT_EQ(readText(path), started + records(1, 5));
}

TEST_F(AppenderTest, OverflowKeepsTheNewestAndWarnsOnceWithTheLostCount)
{
    // A bound of 0 falls back to the default of 50.
    const struct {
        int bound, logged, lost;
        const char* warning;
    } cases[] = {
        {0, 60, 10, "--- WARNING: Log messages overflowed the cache! Lost 10 messages before the next message. ---\n"},
        {3, 4, 1, "--- WARNING: Log messages overflowed the cache! Lost 1 messages before the next message. ---\n"},
    };
    for (const auto& overflow : cases) {
        SCOPED_TRACE(overflow.bound);
        const std::string file = dir.path(std::to_string(overflow.bound) + ".log");
        TestAppender appender(file, LARGE_ROLLOVER, overflow.bound, NEVER);
        appender.manualCommits();
        appender.logRecords(1, overflow.logged);
        appender->commit();
        const std::string expected = banner(file) + overflow.warning + records(overflow.lost + 1, overflow.logged);
        EXPECT_EQ(readText(file), expected);
        // The count starts again: the next commit has no warning.
        appender.logRecords(overflow.logged + 1, overflow.logged + 1);
        appender->commit();
        EXPECT_EQ(readText(file), expected + records(overflow.logged + 1, overflow.logged + 1));
    }
}

TEST_F(AppenderTest, RollsOverAfterTheRecordThatCrossesTheSizeTheBaseClassKeeps)
{
    // The base class raises sizes below 200 KiB to 204800.
    const long size = 204800;
    TestAppender appender(path, 10240, 1000, NEVER, "%m");
    appender.manualCommits();
    for (int number = 0; number < 300; ++number) {
        appender.log(std::string(1000, 'x'));
    }
    appender->commit();
    const long crossing = (size - static_cast<long>(banner(path).size())) / 1000 + 1;  // the first record past it
    EXPECT_EQ(readText(path + ".1"), banner(path) + std::string(static_cast<std::size_t>(crossing * 1000), 'x'));
    EXPECT_EQ(readText(path), std::string(static_cast<std::size_t>((300 - crossing) * 1000), 'x'));
}

TEST_F(AppenderTest, MissingDirectoryIsReportedAtEveryCommitTheCacheStaysBoundedAndTheFinalCommitAborts)
{
    const std::string missing = dir.path("missing/test.log");
    TestAppender appender(missing, LARGE_ROLLOVER, 50, NEVER);
    appender.manualCommits();
    appender.logRecords(1, 60);
    appender->commit();
    appender->commit();
    EXPECT_EQ(appender.errors, std::vector<std::string>(2, "file is not open: " + missing));
    EXPECT_EQ(appender->getCachedCount(), 50u);
    EXPECT_EQ(appender->getLostCount(), 10u);
    EXPECT_FALSE(std::filesystem::exists(dir.path("missing")));
    // A final commit that fails aborts with its message.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    appender->setErrorHandler(std::make_unique<ThrowingErrorHandler>());
    EXPECT_DEATH(appender.destroy(), "Error committing cached log messages\\.\n");
    appender.recordErrors();
}

TEST_F(AppenderTest, CloseWritesTheCacheThenLaterCommitsReportTheFile)
{
    TestAppender appender(path, LARGE_ROLLOVER, 50, NEVER);
    appender.manualCommits();
    appender.logRecords(1, 2);
    appender->close();
    EXPECT_EQ(readText(path), banner(path) + records(1, 2));
    appender->commit();
    appender->commit();
    EXPECT_EQ(appender.errors, std::vector<std::string>(2, "file is not open: " + path));
}

TEST_F(AppenderTest, CommitThreadWritesEveryPeriodOrContinuouslyAndEndsAtClose)
{
    for (const int period : {2, 0}) {
        const std::string file = dir.path(std::to_string(period) + ".log");
        TestAppender appender(file, LARGE_ROLLOVER, 50, period);
        for (int number = 1; number <= 3; ++number) {
            appender.logRecords(number, number);
            EXPECT_TRUE(logtest::waitUntil([&] { return readText(file) == banner(file) + records(1, number); }))
                << "period " << period << ", record " << number;
        }
        // Were the thread still running after a close, it would report the
        // closed file at once.
        appender->close();
        appender.recordErrors();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(appender.errors, std::vector<std::string>()) << "period " << period;
    }
}

}  // namespace
