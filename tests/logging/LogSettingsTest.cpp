// SPDX-License-Identifier: MIT
#include "logging/AsyncRollingFileAppender.h"
#include "logging/LogSettings.h"

#include <gtest/gtest.h>

#include <climits>

using logging::LoggerLevelSetting;

namespace {

TEST(AppenderSelection, OnlyTheExactWordsSelectAppenders)
{
    auto expect = [](const char* value, bool console, bool file) {
        const logging::AppenderSelection selection = logging::parseAppenderSelection(value);
        EXPECT_EQ(selection.console, console) << (value ? value : "(unset)");
        EXPECT_EQ(selection.file, file) << (value ? value : "(unset)");
    };
    expect(nullptr, true, true);
    expect("ALL", true, true);
    expect("CONSOLE", true, false);
    expect("FILE", false, true);
    expect("console", false, false);
    expect("File", false, false);
    expect("", false, false);
    expect("ALL ", false, false);
}

TEST(NumericValue, ReadsTheLeadingNumberLikeStrtol)
{
    EXPECT_EQ(logging::parseInt32("123"), 123);
    EXPECT_EQ(logging::parseInt32("  42ms"), 42);
    EXPECT_EQ(logging::parseInt32("-7"), -7);
    EXPECT_EQ(logging::parseInt32("abc"), 0);
    EXPECT_EQ(logging::parseInt32(""), 0);
    EXPECT_EQ(logging::parseInt32("0x10"), 0);
}

TEST(NumericValue, SaturatesAtThe32BitLimits)
{
    EXPECT_EQ(logging::parseInt32("2147483647"), INT_MAX);
    EXPECT_EQ(logging::parseInt32("2147483648"), INT_MAX);
    EXPECT_EQ(logging::parseInt32("99999999999999999999999"), INT_MAX);
    EXPECT_EQ(logging::parseInt32("-2147483649"), INT_MIN);
}

TEST(FileSize, UnitsAreFoundAnywhereInAnyCase)
{
    EXPECT_EQ(logging::parseFileSize(nullptr), 1048576);
    EXPECT_EQ(logging::parseFileSize("10kB"), 10240);
    EXPECT_EQ(logging::parseFileSize("3MB"), 3145728);
    EXPECT_EQ(logging::parseFileSize("512kb"), 524288);
    EXPECT_EQ(logging::parseFileSize("2 MB"), 2097152);
    EXPECT_EQ(logging::parseFileSize("2 mb"), 2097152);
    EXPECT_EQ(logging::parseFileSize("100"), 100);
    EXPECT_EQ(logging::parseFileSize("abc"), 0);
    EXPECT_EQ(logging::parseFileSize(""), 0);
    EXPECT_EQ(logging::parseFileSize("KB"), 0);
    // "KB" is looked for before "MB".
    EXPECT_EQ(logging::parseFileSize("4 MB or KB"), 4096);
    EXPECT_EQ(logging::parseFileSize("-5kB"), -5120);
}

TEST(FileSize, ByteCountsBeyond32BitsAreClamped)
{
    EXPECT_EQ(logging::parseFileSize("2047MB"), 2047L * 1048576);
    EXPECT_EQ(logging::parseFileSize("2048MB"), INT_MAX);
    EXPECT_EQ(logging::parseFileSize("99999999999MB"), INT_MAX);
    EXPECT_EQ(logging::parseFileSize("3000000kB"), INT_MAX);
    EXPECT_EQ(logging::parseFileSize("-3000MB"), INT_MIN);
}

TEST(LevelWord, KnowsExactlyTheUpperAndLowerCaseWords)
{
    const std::pair<const char*, log4cplus::LogLevel> known[] = {
        {"OFF", 60000},   {"off", 60000},   {"FATAL", 50000}, {"fatal", 50000}, {"ERROR", 40000},
        {"error", 40000}, {"WARN", 30000},  {"warn", 30000},  {"INFO", 20000},  {"info", 20000},
        {"DEBUG", 10000}, {"debug", 10000}, {"TRACE", 0},     {"trace", 0},     {"", 0},
    };
    for (const auto& word : known) {
        EXPECT_EQ(logging::parseLevelWord(word.first), word.second) << word.first;
    }
    for (const char* unknown : {"Info", "eRROR", "INFO ", "verbose", "20000"}) {
        EXPECT_EQ(logging::parseLevelWord(unknown), log4cplus::OFF_LOG_LEVEL) << unknown;
    }
}

TEST(LoggerList, MapsNamesToLoggersInOrder)
{
    const std::vector<LoggerLevelSetting> expected = {
        {false, "spi_logger", 10000},
        {false, "exception_logger", 40000},
        {true, "", 40000},
        {false, "all_logger", 0},
    };
    EXPECT_EQ(logging::parseLoggerLevels("spi:DEBUG,exception:ERROR;ALL:ERROR,all"), expected);
}

TEST(LoggerList, KeepsRepeatedEntriesSoTheLaterWins)
{
    const std::vector<LoggerLevelSetting> expected = {
        {false, "spi_logger", 20000},
        {false, "spi_logger", 40000},
    };
    EXPECT_EQ(logging::parseLoggerLevels("spi:INFO;spi:ERROR"), expected);
}

TEST(LoggerList, LevelWordRules)
{
    EXPECT_EQ(logging::parseLoggerLevels("spi"), (std::vector<LoggerLevelSetting>{{false, "spi_logger", 0}}));
    EXPECT_EQ(logging::parseLoggerLevels("spi:"), (std::vector<LoggerLevelSetting>{{false, "spi_logger", 0}}));
    EXPECT_EQ(logging::parseLoggerLevels("spi:Info"), (std::vector<LoggerLevelSetting>{{false, "spi_logger", 60000}}));
    // Text after a second ':' is ignored, even when the level word is empty.
    EXPECT_EQ(logging::parseLoggerLevels("spi:ERROR:DEBUG"),
              (std::vector<LoggerLevelSetting>{{false, "spi_logger", 40000}}));
    EXPECT_EQ(logging::parseLoggerLevels("spi::ERROR"), (std::vector<LoggerLevelSetting>{{false, "spi_logger", 0}}));
}

TEST(LoggerList, SkipsEmptyEntriesAndEntriesWithoutAName)
{
    const std::vector<LoggerLevelSetting> expected = {
        {false, "spi_logger", 10000},
        {false, "exception_logger", 40000},
    };
    EXPECT_EQ(logging::parseLoggerLevels(",;,spi:DEBUG;;:;::,:ERROR,exception:ERROR;,"), expected);
    EXPECT_TRUE(logging::parseLoggerLevels("").empty());
    EXPECT_TRUE(logging::parseLoggerLevels(";,;").empty());
    EXPECT_TRUE(logging::parseLoggerLevels(":::").empty());
}

TEST(DefaultFileName, BaseNameCutAtTheFirstDot)
{
    EXPECT_EQ(logging::logFileNameForExecutable("/usr/local/bin/tool"), "tool.log");
    EXPECT_EQ(logging::logFileNameForExecutable("/opt/tools/tool.new.bin"), "tool.log");
    EXPECT_EQ(logging::logFileNameForExecutable("/opt/v1.2/tool"), "tool.log");
    EXPECT_EQ(logging::logFileNameForExecutable("/opt/.hidden"), ".log");
    EXPECT_EQ(logging::logFileNameForExecutable("tool"), "tool.log");
    EXPECT_EQ(logging::logFileNameForExecutable(""), "app.log");
}

TEST(AppenderBounds, CacheBoundBelowOneTakesTheDefault)
{
    using log4cplus::AsyncRollingFileAppender;
    EXPECT_EQ(AsyncRollingFileAppender::boundedCacheEntries(0), 50);
    EXPECT_EQ(AsyncRollingFileAppender::boundedCacheEntries(-1), 50);
    EXPECT_EQ(AsyncRollingFileAppender::boundedCacheEntries(INT_MIN), 50);
    EXPECT_EQ(AsyncRollingFileAppender::boundedCacheEntries(1), 1);
    EXPECT_EQ(AsyncRollingFileAppender::boundedCacheEntries(INT_MAX), INT_MAX);
}

TEST(AppenderBounds, CommitPeriodIsNeverNegativeNorBeyondTheMicrosecondRange)
{
    using log4cplus::AsyncRollingFileAppender;
    EXPECT_EQ(AsyncRollingFileAppender::boundedCommitPeriodMs(0), 0);
    EXPECT_EQ(AsyncRollingFileAppender::boundedCommitPeriodMs(-1), 80);
    EXPECT_EQ(AsyncRollingFileAppender::boundedCommitPeriodMs(INT_MIN), 80);
    EXPECT_EQ(AsyncRollingFileAppender::boundedCommitPeriodMs(2147483), 2147483);
    EXPECT_EQ(AsyncRollingFileAppender::boundedCommitPeriodMs(2147484), 2147483);
    EXPECT_EQ(AsyncRollingFileAppender::boundedCommitPeriodMs(4294968), 2147483);
    EXPECT_EQ(AsyncRollingFileAppender::boundedCommitPeriodMs(INT_MAX), 2147483);
}

}  // namespace
