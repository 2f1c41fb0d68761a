// SPDX-License-Identifier: MIT
#include "logging/AsyncRollingFileAppender.h"

#include "TestFiles.h"

#include <log4cplus/layout.h>
#include <log4cplus/spi/loggingevent.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

using log4cplus::AsyncRollingFileAppender;
using logtest::readFile;

namespace {

const long LARGE_ROLLOVER = 100L * 1024 * 1024;
const int NEVER = AsyncRollingFileAppender::MAX_COMMIT_PERIOD_MS;

struct ErrorReports {
    std::mutex mutex;
    std::vector<std::string> messages;

    std::vector<std::string> taken()
    {
        std::lock_guard<std::mutex> guard(mutex);
        return messages;
    }
};

class RecordingErrorHandler : public log4cplus::ErrorHandler {
public:
    explicit RecordingErrorHandler(std::shared_ptr<ErrorReports> reports) : m_reports(std::move(reports)) {}
    void error(const log4cplus::tstring& message) override
    {
        std::lock_guard<std::mutex> guard(m_reports->mutex);
        m_reports->messages.push_back(message);
    }
    void reset() override {}

private:
    std::shared_ptr<ErrorReports> m_reports;
};

class ThrowingErrorHandler : public log4cplus::ErrorHandler {
public:
    void error(const log4cplus::tstring& message) override { throw std::runtime_error(message); }
    void reset() override {}
};

std::string banner(const std::string& path)
{
    return "\n*\n* Process writing to " + path + " was restarted\n*\n\n";
}

std::string record(int number)
{
    return "record " + std::to_string(number) + "\n";
}

// One appender per test, with records laid out as "%m%n". The commit thread
// is stopped before the last reference goes, as an owner that destroys the
// appender must; manualCommits() stops it at once so that the test decides
// when commits happen.
class TestAppender {
public:
    TestAppender(const std::string& path, long rolloverSize, int cacheBound, int periodMs)
        : m_appender(new AsyncRollingFileAppender(path, rolloverSize, cacheBound, periodMs))
    {
        m_appender->setLayout(std::make_unique<log4cplus::PatternLayout>("%m%n"));
    }
    ~TestAppender() { destroy(); }
    TestAppender(const TestAppender&) = delete;
    TestAppender& operator=(const TestAppender&) = delete;

    AsyncRollingFileAppender* operator->() const { return m_appender.get(); }

    std::shared_ptr<ErrorReports> manualCommits()
    {
        m_appender->stop();
        auto reports = std::make_shared<ErrorReports>();
        m_appender->setErrorHandler(std::make_unique<RecordingErrorHandler>(reports));
        return reports;
    }
    void log(const std::string& message)
    {
        const log4cplus::spi::InternalLoggingEvent event("test", log4cplus::INFO_LOG_LEVEL, message, __FILE__,
                                                         __LINE__);
        m_appender->doAppend(event);
    }
    void logRecords(int first, int last)
    {
        for (int number = first; number <= last; ++number) {
            log("record " + std::to_string(number));
        }
    }
    void destroy()
    {
        if (m_appender) {
            m_appender->stop();
            m_appender = nullptr;
        }
    }

private:
    log4cplus::helpers::SharedObjectPtr<AsyncRollingFileAppender> m_appender;
};

class AppenderTest : public ::testing::Test {
protected:
    logtest::TempDir dir;
    const std::string path = dir.path("test.log");
};

TEST_F(AppenderTest, WritesTheRestartBannerAtEveryConstruction)
{
    {
        std::ofstream earlier(path);
        earlier << "earlier process\n";
    }
    TestAppender(path, LARGE_ROLLOVER, 50, NEVER).destroy();
    EXPECT_EQ(readFile(path), "earlier process\n" + banner(path));
    TestAppender(path, LARGE_ROLLOVER, 50, NEVER).destroy();
    EXPECT_EQ(readFile(path), "earlier process\n" + banner(path) + banner(path));
}

TEST_F(AppenderTest, AppendOnlyCachesAndCommitWritesInOrderAndFlushes)
{
    TestAppender appender(path, LARGE_ROLLOVER, 50, NEVER);
    appender.manualCommits();
    appender.logRecords(1, 3);
    EXPECT_EQ(readFile(path), banner(path));
    EXPECT_EQ(appender->getCachedCount(), 3u);

    appender->commit();
    EXPECT_EQ(readFile(path), banner(path) + record(1) + record(2) + record(3));
    EXPECT_EQ(appender->getCachedCount(), 0u);
}

TEST_F(AppenderTest, EmptyCommitWritesNothing)
{
    TestAppender appender(path, LARGE_ROLLOVER, 50, NEVER);
    appender.manualCommits();
    appender.logRecords(1, 1);
    appender->commit();
    const std::string before = readFile(path);
    appender->commit();
    appender->commit();
    EXPECT_EQ(readFile(path), before);
}

// Bound 50 as configured, and bound 0, which falls back to 50.
TEST_F(AppenderTest, OverflowKeepsTheNewestAndWarnsOnceWithTheLostCount)
{
    for (const int bound : {50, 0}) {
        SCOPED_TRACE("bound " + std::to_string(bound));
        logtest::TempDir ownDir;
        const std::string ownPath = ownDir.path("test.log");
        TestAppender appender(ownPath, LARGE_ROLLOVER, bound, NEVER);
        appender.manualCommits();
        appender.logRecords(1, 60);
        EXPECT_EQ(appender->getLostCount(), 10u);
        appender->commit();

        std::string expected = banner(ownPath) + "--- WARNING: Log messages overflowed the cache! Lost 10 messages "
                                                 "before the next message. ---\n";
        for (int number = 11; number <= 60; ++number) {
            expected += record(number);
        }
        EXPECT_EQ(readFile(ownPath), expected);

        // The count restarts: the next commit has no warning.
        appender.logRecords(61, 62);
        appender->commit();
        EXPECT_EQ(readFile(ownPath), expected + record(61) + record(62));
    }
}

TEST_F(AppenderTest, OneLostRecordStillSaysMessages)
{
    TestAppender appender(path, LARGE_ROLLOVER, 3, NEVER);
    appender.manualCommits();
    appender.logRecords(1, 4);
    appender->commit();
    EXPECT_EQ(readFile(path), banner(path) +
                                  "--- WARNING: Log messages overflowed the cache! Lost 1 messages "
                                  "before the next message. ---\n" +
                                  record(2) + record(3) + record(4));
}

TEST_F(AppenderTest, RollsOverAfterTheRecordThatCrossesTheSize)
{
    const long size = 204800;
    const std::string text(999, 'x');  // 1000 bytes per record with its line end
    TestAppender appender(path, size, 1000, NEVER);
    appender.manualCommits();
    for (int number = 0; number < 300; ++number) {
        appender.log(text);
    }
    appender->commit();

    const long bannerLength = static_cast<long>(banner(path).size());
    // The first record after which the file is larger than the size.
    const long crossing = (size - bannerLength) / 1000 + 1;
    const std::string backup = readFile(path + ".1");
    EXPECT_EQ(static_cast<long>(backup.size()), bannerLength + crossing * 1000);
    EXPECT_GT(static_cast<long>(backup.size()), size);
    EXPECT_EQ(backup.substr(0, static_cast<std::size_t>(bannerLength)), banner(path));
    EXPECT_EQ(readFile(path).size(), static_cast<std::size_t>((300 - crossing) * 1000));
    EXPECT_EQ(readFile(path).substr(0, 1000), text + "\n");
}

TEST_F(AppenderTest, RolloverUsesTheSizeTheBaseClassKeeps)
{
    {
        // The base class raises sizes below 200 KiB to 204800.
        TestAppender appender(path, 10240, 100, NEVER);
        EXPECT_EQ(appender->getRolloverSize(), 204800);
        appender.manualCommits();
        for (int number = 0; number < 20; ++number) {
            appender.log(std::string(999, 'y'));
        }
        appender->commit();
        EXPECT_FALSE(std::filesystem::exists(path + ".1"));
        EXPECT_GT(readFile(path).size(), 20000u);
    }
    TestAppender larger(dir.path("larger.log"), 300000, 100, NEVER);
    EXPECT_EQ(larger->getRolloverSize(), 300000);
}

TEST_F(AppenderTest, MissingDirectoryIsReportedAtEveryCommitAndTheCacheStaysBounded)
{
    const std::string missing = dir.path("missing/test.log");
    TestAppender appender(missing, LARGE_ROLLOVER, 50, NEVER);
    const auto reports = appender.manualCommits();
    appender.logRecords(1, 60);
    appender->commit();
    appender->commit();
    EXPECT_EQ(reports->taken(), std::vector<std::string>(2, "file is not open: " + missing));
    EXPECT_EQ(appender->getCachedCount(), 50u);
    EXPECT_EQ(appender->getLostCount(), 10u);
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(AppenderTest, CloseWritesTheCacheThenLaterCommitsReportTheFile)
{
    TestAppender appender(path, LARGE_ROLLOVER, 50, NEVER);
    const auto reports = appender.manualCommits();
    appender.logRecords(1, 2);
    appender->close();
    EXPECT_EQ(readFile(path), banner(path) + record(1) + record(2));
    appender->commit();
    appender->commit();
    EXPECT_EQ(reports->taken(), std::vector<std::string>(2, "file is not open: " + path));
    EXPECT_EQ(readFile(path), banner(path) + record(1) + record(2));
}

TEST_F(AppenderTest, CloseEndsTheCommitThread)
{
    // Were the thread still running, its commits would report the closed
    // file every 1 ms.
    TestAppender appender(path, LARGE_ROLLOVER, 50, 1);
    auto reports = std::make_shared<ErrorReports>();
    appender->close();
    appender->setErrorHandler(std::make_unique<RecordingErrorHandler>(reports));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(reports->taken().empty());
}

TEST_F(AppenderTest, CommitThreadWritesEveryPeriod)
{
    TestAppender appender(path, LARGE_ROLLOVER, 50, 2);
    appender.logRecords(1, 5);
    EXPECT_TRUE(
        logtest::waitUntil([&] { return readFile(path).size() == banner(path).size() + 5 * record(1).size(); }));
    appender.logRecords(6, 6);
    EXPECT_TRUE(logtest::waitUntil([&] { return readFile(path).find(record(6)) != std::string::npos; }));
    EXPECT_EQ(readFile(path), banner(path) + record(1) + record(2) + record(3) + record(4) + record(5) + record(6));
}

TEST_F(AppenderTest, PeriodZeroCommitsContinuously)
{
    TestAppender appender(path, LARGE_ROLLOVER, 50, 0);
    EXPECT_EQ(appender->getCommitPeriodMs(), 0);
    for (int number = 1; number <= 3; ++number) {
        appender.logRecords(number, number);
        EXPECT_TRUE(logtest::waitUntil([&] { return readFile(path).find(record(number)) != std::string::npos; }));
    }
}

TEST_F(AppenderTest, DestructorCommitsTheRemainingRecords)
{
    TestAppender appender(path, LARGE_ROLLOVER, 50, NEVER);
    appender.manualCommits();
    appender.logRecords(1, 2);
    appender.destroy();
    EXPECT_EQ(readFile(path), banner(path) + record(1) + record(2));
}

TEST_F(AppenderTest, FailedFinalCommitAbortsWithItsMessage)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string missing = dir.path("missing/test.log");
    EXPECT_DEATH(
        {
            TestAppender appender(missing, LARGE_ROLLOVER, 50, NEVER);
            appender.manualCommits();
            appender->setErrorHandler(std::make_unique<ThrowingErrorHandler>());
            appender.destroy();
        },
        "Error committing cached log messages\\.\n");
}

}  // namespace
