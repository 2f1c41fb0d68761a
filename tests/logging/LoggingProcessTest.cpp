// SPDX-License-Identifier: MIT
// Whole-process behaviour of the logging: runs logging_child with a chosen
// environment and checks its standard output, standard error and log file.

#include "ChildProcess.h"
#include "TempFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

using testsupport::ProcessResult;
using testsupport::readText;

// "@" in a text stands for the test's folder.
std::string inFolder(std::string text, const std::string& folder)
{
    for (std::size_t at = text.find('@'); at != std::string::npos; at = text.find('@', at + folder.size())) {
        text.replace(at, 1, folder);
    }
    return text;
}

// Runs the child in a time zone five hours east of UTC, without the
// variables the tests choose, then with `environment` ("NAME=value ...").
ProcessResult runChild(const std::vector<std::string>& arguments, const std::string& environment,
                       const std::string& folder)
{
    testsupport::ProcessRequest request;
    request.argv = {LOGGING_CHILD_PATH};
    request.argv.insert(request.argv.end(), arguments.begin(), arguments.end());
    request.unset = {"LOG4CPLUS_*", "LOGGING_CHILD_*"};
    request.set = {{"TZ", "XYZ-5"}};
    std::istringstream entries(inFolder(environment, folder));
    for (std::string entry; entries >> entry;) {
        request.set.emplace_back(entry.substr(0, entry.find('=')), entry.substr(entry.find('=') + 1));
    }
    request.timeoutSeconds = 60;
    ProcessResult child = testsupport::runProcess(request);
    EXPECT_FALSE(child.timedOut) << "child did not end";
    return child;
}

std::string banner(const std::string& path)
{
    return "\n*\n* Process writing to " + path + " was restarted\n*\n\n";
}

// The text with each record line shown as "<level> <logger> <message>", plus
// " @0" where its elapsed seconds read 0. What every record must have right
// is checked here: the child's pid, the caller's file, and a local time five
// hours ahead of the UTC time.
std::string shown(const std::string& text, int pid)
{
    static const std::regex RECORD(
        "(INFO|ERROR|DEBUG) P:(\\d+) T:\\S+ \\[\\d{4}-\\d\\d-\\d\\d (\\d\\d):(\\d\\d):\\d\\d\\.\\d{3} "
        "UTC:(\\d\\d):(\\d\\d)\\] (\\S+) (\\S+):\\d+ \\[(\\d+\\.\\d{6}) sec\\] - (.*)");
    std::string result;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch part;
        if (!std::regex_match(line, part, RECORD)) {
            result += line + "\n";
            continue;
        }
        EXPECT_EQ(std::stoi(part[2]), pid) << line;
        EXPECT_EQ(std::filesystem::path(part[8].str()).filename(), "LoggingChild.cpp") << line;
        // A minute may turn between the two readings of one record.
        const int ahead = (std::stoi(part[3]) - std::stoi(part[5])) * 60 + std::stoi(part[4]) - std::stoi(part[6]);
        EXPECT_TRUE((ahead + 1440) % 1440 == 300 || (ahead + 1440) % 1440 == 299) << line;
        result +=
            part[1].str() + " " + part[7].str() + " " + part[10].str() + (part[9] == "0.000000" ? " @0" : "") + "\n";
    }
    return result;
}

const std::string INFO = "INFO spi_logger info record 1 @0\n";
const std::string ERROR = "ERROR spi_logger error record 2\n";
const std::string EXCEPTION = "INFO exception_logger exception info record\n";
const std::string DEBUG = "DEBUG spi_logger debug record\n";
const std::string ALL = INFO + ERROR + EXCEPTION;
const std::string CONSOLE = "\nLOG4CPLUS_APPENDER=CONSOLE\n";
const char* const TOO_SMALL = "MaxFileSize property value is too small";  // log4cplus raised the size

struct RecordsCase {
    const char* environment;
    std::string out;      // standard output, records shown
    const char* logFile;  // the one file in the folder afterwards, or ""
    std::string file;     // its records after the restart banner
    const char* error;    // text on standard error; nullptr: nothing
};

const RecordsCase kRecordsCases[] = {
    {"LOG4CPLUS_FILE_DIR=@", ALL, "logging_child.log", ALL, nullptr},
    {"LOG4CPLUS_APPENDER=CONSOLE LOG4CPLUS_FILE_DIR=@ LOG4CPLUS_FILE_CACHE_SIZE=5 LOG4CPLUS_LOGGERS=ALL:ERROR,spi",
     CONSOLE + "\nLOG4CPLUS_LOGGERS=ALL:ERROR,spi\n" + INFO + ERROR + DEBUG, "", "", nullptr},
    {"LOG4CPLUS_LOGGERS=spi:INFO;spi:ERROR LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=3 LOG4CPLUS_FILE_CACHE_SIZE=7 "
     "LOG4CPLUS_APPENDER=FILE LOG4CPLUS_FILE_DIR=@ LOG4CPLUS_FILE_NAME=named.log LOG4CPLUS_FILE_SIZE=3MB",
     "\nLOG4CPLUS_APPENDER=FILE\n\nLOG4CPLUS_FILE_CACHE_SIZE=7\n\nLOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=3\n"
     "\nLOG4CPLUS_LOGGERS=spi:INFO;spi:ERROR\n",
     "named.log", ERROR + EXCEPTION, nullptr},
    {"LOG4CPLUS_APPENDER=console LOG4CPLUS_FILE_DIR=@", "\nLOG4CPLUS_APPENDER=console\n", "", "",
     "No appenders could be found"},
    // A folder that cannot be written stops nothing; the default folder is
    // tried with a name that cannot be opened there either.
    {"LOG4CPLUS_FILE_DIR=@/missing", ALL, "", "", "@/missing/logging_child.log"},
    {"LOG4CPLUS_FILE_NAME=no-such-folder/child.log", ALL, "", "", "/var/lib/vosta/log/no-such-folder/child.log"},
    // Bad values are accepted without harm.
    {"LOG4CPLUS_FILE_DIR=@ LOG4CPLUS_FILE_SIZE= LOG4CPLUS_FILE_CACHE_SIZE=0 LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=-5 "
     "LOG4CPLUS_LOGGERS=:,;:::;",
     "\nLOG4CPLUS_FILE_CACHE_SIZE=0\n\nLOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=-5\n\nLOG4CPLUS_LOGGERS=:,;:::;\n" + ALL,
     "logging_child.log", ALL, TOO_SMALL},
    {"LOG4CPLUS_FILE_DIR=@ LOG4CPLUS_FILE_SIZE=99999999999MB LOG4CPLUS_FILE_CACHE_SIZE=99999999999 "
     "LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=99999999999",
     "\nLOG4CPLUS_FILE_CACHE_SIZE=99999999999\n\nLOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=99999999999\n" + ALL,
     "logging_child.log", ALL, nullptr},
};

TEST(LoggingProcess, RecordsReachTheChosenOutputsWithTheChosenSettings)
{
    for (const RecordsCase& row : kRecordsCases) {
        SCOPED_TRACE(row.environment);
        testsupport::TempFolder folder;
        const ProcessResult child = runChild({"records"}, row.environment, folder.path());
        EXPECT_EQ(child.status(), 0);
        EXPECT_EQ(shown(child.out, child.pid), row.out);
        if (row.error == nullptr) {
            EXPECT_EQ(child.err, "");
        } else {
            EXPECT_NE(child.err.find(inFolder(row.error, folder.path())), std::string::npos) << child.err;
        }
        std::vector<std::string> files;
        for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
            files.push_back(entry.path().filename());
        }
        EXPECT_EQ(files, *row.logFile ? std::vector<std::string>{row.logFile} : std::vector<std::string>{});
        if (*row.logFile) {
            const std::string path = folder.path(row.logFile);
            EXPECT_EQ(shown(readText(path), child.pid), banner(path) + row.file);
        }
    }
}

TEST(LoggingProcess, FirstStatementFixesTheTimeBaseEvenWhenItsLevelIsDisabled)
{
    const std::pair<const char*, std::string> cases[] = {
        {"LOG4CPLUS_LOGGERS=spi:ERROR",
         CONSOLE + "\nLOG4CPLUS_LOGGERS=spi:ERROR\ncomposed error\nERROR spi_logger error\n"},
        {"", CONSOLE + "composed info\nINFO spi_logger info @0\ncomposed error\nERROR spi_logger error\n"},
        {"LOGGING_CHILD_STATIC_INIT=1", CONSOLE + "INFO spi_logger static initialisation record @0\ncomposed info\n"
                                                  "INFO spi_logger info\ncomposed error\nERROR spi_logger error\n"},
    };
    for (const auto& [environment, out] : cases) {
        const ProcessResult child =
            runChild({"timebase"}, "LOG4CPLUS_APPENDER=CONSOLE " + std::string(environment), "");
        EXPECT_EQ(child.status(), 0) << child.err;
        EXPECT_EQ(shown(child.out, child.pid), out);
        // The last statement comes 30 ms after the first one.
        std::smatch last;
        ASSERT_TRUE(std::regex_search(child.out, last, std::regex("([\\d.]+) sec\\] - error\n$"))) << child.out;
        EXPECT_GE(std::stod(last[1]), 0.030);
        EXPECT_LT(std::stod(last[1]), 30.0);
    }
}

TEST(LoggingProcess, TwoFirstStatementsAtOnceConfigureOnce)
{
    const ProcessResult child = runChild({"threads"}, "LOG4CPLUS_APPENDER=CONSOLE", "");
    const std::regex form(CONSOLE + "(INFO .* \\[0\\.\\d{6} sec\\] - first statement of (one|two)\n){2}");
    EXPECT_TRUE(std::regex_match(child.out, form)) << child.out;
    EXPECT_NE(child.out.find("of one"), std::string::npos);
    EXPECT_NE(child.out.find("of two"), std::string::npos);
}

TEST(LoggingProcess, RecordsOfTheLastMomentsAndOfExitHandlersReachTheFileOnce)
{
    // With the longest period only the commits at exit write the records.
    // With period 0 the commit thread is busy when the process exits: the
    // final commit must end it before log4cplus tears itself down, and the
    // record logged after that commit is written when log4cplus closes the
    // file. Several runs, as that is a race.
    for (const std::string period : {"4294967", "0", "0", "0", "0", "0", "0"}) {
        testsupport::TempFolder folder;
        const ProcessResult child = runChild({"atexit"},
                                             "LOG4CPLUS_APPENDER=FILE LOG4CPLUS_FILE_DIR=@ "
                                             "LOG4CPLUS_FILE_CACHE_SIZE=100 LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=" +
                                                 period,
                                             folder.path());
        ASSERT_EQ(child.status(), 0) << child.err;
        EXPECT_EQ(child.err, "");
        EXPECT_EQ(child.out, "\nLOG4CPLUS_APPENDER=FILE\n\nLOG4CPLUS_FILE_CACHE_SIZE=100\n"
                             "\nLOG4CPLUS_FILE_COMMIT_PERIOD_MSEC=" +
                                 period + "\ncommit thread running at exit: no\n");
        const std::string path = folder.path("logging_child.log");
        EXPECT_EQ(shown(readText(path), child.pid),
                  banner(path) + "INFO spi_logger exit record 1 @0\nINFO spi_logger exit record 2\n"
                                 "INFO spi_logger exit record 3\nINFO spi_logger record before the final commit\n"
                                 "INFO spi_logger record after the final commit\n");
    }
}

}  // namespace
