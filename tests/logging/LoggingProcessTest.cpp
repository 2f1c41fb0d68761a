// SPDX-License-Identifier: MIT
// Whole-process behaviour of the logging: runs logging_child with a
// controlled environment and checks its standard output, standard error and
// log file.

#include "ChildProcess.h"
#include "TestFiles.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

namespace {

using logtest::readFile;
using Environment = std::vector<std::string>;

using ChildRun = testsupport::ProcessResult;

// Runs the child with only PATH, the sanitizers' options and `environment`.
ChildRun runChild(const std::string& program, const std::vector<std::string>& arguments, Environment environment)
{
    testsupport::ProcessRequest request;
    request.argv = {program};
    request.argv.insert(request.argv.end(), arguments.begin(), arguments.end());
    request.unset = {"*"};
    request.set = {{"PATH", "/usr/bin:/bin"}};
    for (const char* passed : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"}) {
        if (const char* value = std::getenv(passed)) {
            request.set.emplace_back(passed, value);
        }
    }
    for (const std::string& entry : environment) {
        const std::size_t equals = entry.find('=');
        request.set.emplace_back(entry.substr(0, equals), entry.substr(equals + 1));
    }
    request.timeoutSeconds = 60;
    ChildRun run = testsupport::runProcess(request);
    EXPECT_FALSE(run.timedOut) << "child did not end";
    return run;
}

struct Record {
    std::string level;
    long pid;
    int localHour, localMinute, utcHour, utcMinute;
    std::string logger;
    std::string file;
    std::string elapsed;
    std::string message;
};

// The record lines of a text; other lines (banner, echo lines) are skipped.
std::vector<Record> records(const std::string& text)
{
    static const std::regex LINE(
        "(INFO|ERROR) P:(\\d+) T:\\S+ \\[\\d{4}-\\d\\d-\\d\\d (\\d\\d):(\\d\\d):\\d\\d\\.\\d{3} "
        "UTC:(\\d\\d):(\\d\\d)\\] (\\S+) (\\S+):\\d+ \\[(\\d+\\.\\d{6}) sec\\] - (.*)");
    std::vector<Record> result;
    for (const std::string& line : logtest::splitLines(text)) {
        std::smatch m;
        if (std::regex_match(line, m, LINE)) {
            result.push_back({m[1], std::stol(m[2]), std::stoi(m[3]), std::stoi(m[4]), std::stoi(m[5]), std::stoi(m[6]),
                              m[7], m[8], m[9], m[10]});
        }
    }
    return result;
}

std::vector<std::string> messages(const std::string& text)
{
    std::vector<std::string> result;
    for (const Record& record : records(text)) {
        result.push_back(record.level + " " + record.logger + " " + record.message);
    }
    return result;
}

const std::vector<std::string> ALL_THREE = {
    "INFO spi_logger info record 1",
    "ERROR spi_logger error record 2",
    "INFO exception_logger exception info record",
};

std::string banner(const std::string& path)
{
    return "\n*\n* Process writing to " + path + " was restarted\n*\n\n";
}

class LoggingProcessTest : public ::testing::Test {
protected:
    ChildRun run(const std::vector<std::string>& arguments, Environment environment)
    {
        return runChild(LOGGING_CHILD_PATH, arguments, std::move(environment));
    }
    std::string dirVariable() const { return "LOG4CPLUS_FILE_DIR=" + dir.path(); }
    std::string defaultLog() const { return dir.path("logging_child.log"); }

    logtest::TempDir dir;
};

TEST_F(LoggingProcessTest, DefaultsLogToConsoleAndFileWithoutEchoLines)
{
    const ChildRun child = run({"records"}, {dirVariable()});
    EXPECT_EQ(child.status(), 0) << child.err;
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(messages(child.out), ALL_THREE);
    EXPECT_EQ(logtest::splitLines(child.out).size(), 3u) << child.out;

    const std::string file = readFile(defaultLog());
    ASSERT_EQ(file.substr(0, banner(defaultLog()).size()), banner(defaultLog()));
    EXPECT_EQ(messages(file), ALL_THREE);
    EXPECT_EQ(logtest::splitLines(file).size(), 5u + 3u);
    for (const Record& record : records(file)) {
        EXPECT_EQ(record.pid, child.pid);
        EXPECT_NE(record.file.find("LoggingChild.cpp"), std::string::npos) << record.file;
    }
}

TEST_F(LoggingProcessTest, RecordShowsLocalTimeAndUtcTime)
{
    const ChildRun child = run({"records"}, {"LOG4CPLUS_APPENDER=CONSOLE", "TZ=XYZ-5"});
    const std::vector<Record> lines = records(child.out);
    ASSERT_EQ(lines.size(), 3u) << child.out;
    // Five hours east of UTC: a minute boundary may pass between the two
    // readings of one record, so compare in minutes with one of slack.
    const int local = lines[0].localHour * 60 + lines[0].localMinute;
    const int utc = lines[0].utcHour * 60 + lines[0].utcMinute;
    const int difference = ((local - utc) % 1440 + 1440) % 1440;
    EXPECT_TRUE(difference == 300 || difference == 299) << child.out;
}

TEST_F(LoggingProcessTest, DefaultDirectoryIsTheBoardsLogFolder)
{
    if (std::filesystem::exists("/var/lib/vosta/log")) {
        GTEST_SKIP() << "the board's log folder exists here; not writing into it";
    }
    const ChildRun child = run({"records"}, {});
    EXPECT_EQ(child.status(), 0);
    EXPECT_EQ(messages(child.out), ALL_THREE);
    EXPECT_NE(child.err.find("/var/lib/vosta/log/logging_child.log"), std::string::npos) << child.err;
}

TEST_F(LoggingProcessTest, MissingDirectoryDoesNotStopTheProgram)
{
    const std::string missing = dir.path("missing");
    const ChildRun child = run({"records"}, {"LOG4CPLUS_FILE_DIR=" + missing});
    EXPECT_EQ(child.status(), 0);
    EXPECT_EQ(messages(child.out), ALL_THREE);
    EXPECT_NE(child.err.find(missing + "/logging_child.log"), std::string::npos) << child.err;
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(LoggingProcessTest, ConsoleOnlyCreatesNoFileAndEchoesNoCacheSettings)
{
    const ChildRun child =
        run({"records"}, {"LOG4CPLUS_APPENDER=CONSOLE", dirVariable(), "LOG4CPLUS_FILE_CACHE_SIZE=5"});
    EXPECT_EQ(child.out.substr(0, 28), "\nLOG4CPLUS_APPENDER=CONSOLE\n");
    EXPECT_EQ(child.out.find("CACHE"), std::string::npos);
    EXPECT_EQ(messages(child.out), ALL_THREE);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST_F(LoggingProcessTest, FileOnlyEchoesItsSettingsInOrder)
{
    const ChildRun child = run({"records"}, {"LOG4CPLUS_LOGGERS=spi:ERROR", "LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=3",
                                             "LOG4CPLUS_FILE_CACHE_SIZE=7", "LOG4CPLUS_APPENDER=FILE", dirVariable(),
                                             "LOG4CPLUS_FILE_NAME=named.log", "LOG4CPLUS_FILE_SIZE=3MB"});
    EXPECT_EQ(child.out, "\nLOG4CPLUS_APPENDER=FILE\n\nLOG4CPLUS_FILE_CACHE_SIZE=7\n"
                         "\nLOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=3\n\nLOG4CPLUS_LOGGERS=spi:ERROR\n");
    EXPECT_EQ(
        messages(readFile(dir.path("named.log"))),
        (std::vector<std::string>{"ERROR spi_logger error record 2", "INFO exception_logger exception info record"}));
}

TEST_F(LoggingProcessTest, AnyOtherAppenderWordSelectsNothing)
{
    const ChildRun child = run({"records"}, {"LOG4CPLUS_APPENDER=console", dirVariable()});
    EXPECT_EQ(child.status(), 0);
    EXPECT_EQ(child.out, "\nLOG4CPLUS_APPENDER=console\n");
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST_F(LoggingProcessTest, LoggerLevelsFromTheList)
{
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"ALL:ERROR", {ALL_THREE[1]}},
        {"spi:INFO;spi:ERROR", {ALL_THREE[1], ALL_THREE[2]}},
        {"spi:Info", {ALL_THREE[2]}},
        {"ALL:ERROR,spi", {ALL_THREE[0], ALL_THREE[1]}},
        {"::,exception:OFF;;", {ALL_THREE[0], ALL_THREE[1]}},
    };
    for (const auto& [list, expected] : cases) {
        const ChildRun child = run({"records"}, {"LOG4CPLUS_APPENDER=CONSOLE", "LOG4CPLUS_LOGGERS=" + list});
        const std::string echo = "\nLOG4CPLUS_APPENDER=CONSOLE\n\nLOG4CPLUS_LOGGERS=" + list + "\n";
        EXPECT_EQ(child.out.substr(0, echo.size()), echo) << list;
        EXPECT_EQ(messages(child.out), expected) << list;
    }
}

TEST_F(LoggingProcessTest, DefaultFileNameComesFromTheExecutablesBaseName)
{
    const std::pair<std::string, std::string> cases[] = {
        {"tool.new.bin", "tool.log"},
        {".hidden", ".log"},
    };
    const std::string bin = dir.path("bin");
    std::filesystem::create_directory(bin);
    for (const auto& [executable, logName] : cases) {
        const std::string copy = bin + "/" + executable;
        std::filesystem::copy_file(LOGGING_CHILD_PATH, copy);
        std::filesystem::permissions(copy, std::filesystem::perms::owner_all);
        const ChildRun child = runChild(copy, {"records"}, {"LOG4CPLUS_APPENDER=FILE", dirVariable()});
        EXPECT_EQ(child.status(), 0) << child.err;
        EXPECT_EQ(messages(readFile(dir.path(logName))), ALL_THREE) << executable;
    }
}

TEST_F(LoggingProcessTest, LastRecordsBeforeExitAreCommitted)
{
    // The commit thread sleeps for its whole (capped) period after its first
    // commit: only the final commit at exit can write these records.
    const ChildRun child =
        run({"exit", "40"}, {"LOG4CPLUS_APPENDER=FILE", dirVariable(), "LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=4294967",
                             "LOG4CPLUS_FILE_CACHE_SIZE=100"});
    EXPECT_EQ(child.status(), 0) << child.err;
    std::vector<std::string> expected;
    for (int number = 1; number <= 40; ++number) {
        expected.push_back("INFO spi_logger exit record " + std::to_string(number));
    }
    EXPECT_EQ(messages(readFile(defaultLog())), expected);
}

TEST_F(LoggingProcessTest, StatementsFromExitHandlersReachTheFile)
{
    const ChildRun child =
        run({"atexit"}, {"LOG4CPLUS_APPENDER=FILE", dirVariable(), "LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=4294967"});
    EXPECT_EQ(child.status(), 0) << child.err;
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(messages(readFile(defaultLog())),
              (std::vector<std::string>{"INFO spi_logger main record", "INFO spi_logger exit handler registered last",
                                        "INFO spi_logger exit handler registered first"}));
}

TEST_F(LoggingProcessTest, FinalCommitEndsTheCommitThreadAndEveryRecordIsWrittenOnce)
{
    // A commit thread still running when log4cplus tears itself down at exit
    // commits, and ends, inside that teardown. The final commit ends it first;
    // the record logged after it is written when log4cplus closes the file.
    // Continuous commits keep the thread busy at the moment of exit.
    const int rounds = 10;
    const int count = 30;
    std::vector<std::string> expected;
    for (int round = 0; round < rounds; ++round) {
        const ChildRun child = run({"exitthread", std::to_string(count)},
                                   {"LOG4CPLUS_APPENDER=FILE", dirVariable(), "LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=0",
                                    "LOG4CPLUS_FILE_CACHE_SIZE=100"});
        ASSERT_EQ(child.status(), 0) << child.err;
        EXPECT_EQ(child.err, "");
        EXPECT_NE(child.out.find("commit thread running at exit: no\n"), std::string::npos) << child.out;
        for (int number = 1; number <= count; ++number) {
            expected.push_back("INFO spi_logger exit record " + std::to_string(number));
        }
        expected.push_back("INFO spi_logger record after the final commit");
    }
    EXPECT_EQ(messages(readFile(defaultLog())), expected);
}

TEST_F(LoggingProcessTest, FirstStatementReportsZeroAndLaterOnesCountFromIt)
{
    const ChildRun child = run({"elapsed"}, {"LOG4CPLUS_APPENDER=CONSOLE"});
    const std::vector<Record> lines = records(child.out);
    ASSERT_EQ(lines.size(), 2u) << child.out;
    EXPECT_EQ(lines[0].elapsed, "0.000000");
    EXPECT_GE(std::stod(lines[1].elapsed), 0.030);
    EXPECT_LT(std::stod(lines[1].elapsed), 30.0);
}

TEST_F(LoggingProcessTest, DisabledFirstStatementStillConfiguresAndFixesTheTimeBase)
{
    const ChildRun child = run({"disabled"}, {"LOG4CPLUS_APPENDER=CONSOLE", "LOG4CPLUS_LOGGERS=spi:ERROR"});
    const std::string echo = "\nLOG4CPLUS_APPENDER=CONSOLE\n\nLOG4CPLUS_LOGGERS=spi:ERROR\n";
    EXPECT_EQ(child.out.substr(0, echo.size()), echo);
    EXPECT_EQ(child.out.find("composed info"), std::string::npos);
    EXPECT_NE(child.out.find("composed error"), std::string::npos);
    const std::vector<Record> lines = records(child.out);
    ASSERT_EQ(lines.size(), 1u) << child.out;
    EXPECT_EQ(lines[0].message, "error");
    // Counted from the disabled statement, which ran the configuration.
    EXPECT_NE(lines[0].elapsed, "0.000000");
}

TEST_F(LoggingProcessTest, StatementDuringStaticInitialisation)
{
    const ChildRun child = run({"records"}, {"LOGGING_CHILD_STATIC_INIT=1", dirVariable()});
    EXPECT_EQ(child.status(), 0) << child.err;
    for (const std::string& output : {child.out, readFile(defaultLog())}) {
        const std::vector<Record> lines = records(output);
        ASSERT_EQ(lines.size(), 4u) << output;
        EXPECT_EQ(lines[0].message, "static initialisation record");
        EXPECT_EQ(lines[0].elapsed, "0.000000");
    }
}

TEST_F(LoggingProcessTest, TwoFirstStatementsAtOnceConfigureOnce)
{
    const ChildRun child = run({"threads"}, {"LOG4CPLUS_APPENDER=CONSOLE"});
    EXPECT_EQ(child.status(), 0) << child.err;
    EXPECT_EQ(child.out.find("LOG4CPLUS_APPENDER"), child.out.rfind("LOG4CPLUS_APPENDER"));
    const std::vector<Record> lines = records(child.out);
    ASSERT_EQ(lines.size(), 2u) << child.out;
    for (const Record& line : lines) {
        EXPECT_LT(std::stod(line.elapsed), 5.0);
    }
}

TEST_F(LoggingProcessTest, FileSizeIsHandedToTheBaseClassUnraised)
{
    // log4cplus's rolling appender warns when it has to raise a size below
    // 200 KiB: 10kB arrives as 10240, 300kB as 307200.
    const std::string tooSmall = "MaxFileSize property value is too small";
    const ChildRun small = run({"records"}, {dirVariable(), "LOG4CPLUS_FILE_SIZE=10kB"});
    EXPECT_NE(small.err.find(tooSmall), std::string::npos) << small.err;
    const ChildRun large = run({"records"}, {dirVariable(), "LOG4CPLUS_FILE_SIZE=300kB"});
    EXPECT_EQ(large.err.find(tooSmall), std::string::npos) << large.err;
}

TEST_F(LoggingProcessTest, BadValuesAreAcceptedWithoutHarm)
{
    const Environment cases[] = {
        {"LOG4CPLUS_FILE_SIZE=", "LOG4CPLUS_FILE_CACHE_SIZE=", "LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC="},
        {"LOG4CPLUS_FILE_SIZE=abc", "LOG4CPLUS_FILE_CACHE_SIZE=-1", "LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=-5"},
        {"LOG4CPLUS_FILE_SIZE=99999999999MB", "LOG4CPLUS_FILE_CACHE_SIZE=0",
         "LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=99999999999"},
        {"LOG4CPLUS_FILE_SIZE=-1kb", "LOG4CPLUS_FILE_CACHE_SIZE=99999999999", "LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=abc",
         "LOG4CPLUS_LOGGERS=:,;:::;"},
    };
    int index = 0;
    for (Environment environment : cases) {
        const std::string name = "bad" + std::to_string(index++) + ".log";
        environment.push_back("LOG4CPLUS_APPENDER=FILE");
        environment.push_back("LOG4CPLUS_FILE_NAME=" + name);
        environment.push_back(dirVariable());
        const ChildRun child = run({"records"}, environment);
        EXPECT_EQ(child.status(), 0) << name << child.err;
        EXPECT_EQ(messages(readFile(dir.path(name))), ALL_THREE) << name;
    }
}

}  // namespace
