// SPDX-License-Identifier: MIT
#pragma once

// The rules that turn the values of the LOG4CPLUS_ environment variables
// into logging settings. Pure functions of their text arguments: the
// environment itself is read in LogConfig.cpp, so every rule can be tried
// with any value without touching the process's environment.

#include <log4cplus/loglevel.h>

#include <string>
#include <vector>

namespace logging {

// Defaults for variables that are not set.
extern const char* const kDefaultLogDirectory;  // "/var/lib/vosta/log"
constexpr long kDefaultFileSize = 1048576;      // rollover above 1 MiB
constexpr int kDefaultCacheEntries = 50;        // records held between commits
constexpr int kDefaultCommitPeriodMs = 80;

// Which appenders LOG4CPLUS_APPENDER selects.
struct AppenderSelection {
    bool console;
    bool file;
};

// nullptr (unset) and "ALL" select both, "CONSOLE" the console only, "FILE"
// the file only; every other text (lower case included) selects neither.
AppenderSelection parseAppenderSelection(const char* value);

// Leading decimal number as strtol reads it (no digits: 0, trailing text
// ignored). The board's long is 32 bits, so out-of-range values saturate at
// the 32-bit limits here as well, whatever the width of long on the build
// machine.
int parseInt32(const char* value);

// LOG4CPLUS_FILE_SIZE: the leading number, times 1024 if the upper-cased
// value contains "KB" anywhere, else times 1048576 if it contains "MB".
// Byte counts beyond the 32-bit range (2048 MB and more) are clamped to the
// largest 32-bit value rather than rejected: the user asked for very large
// files, and the nearest size the rollover can represent honours that best.
long parseFileSize(const char* value);

// One level word of LOG4CPLUS_LOGGERS. Only the exact upper- or lower-case
// words are known; the empty word (no level given) is TRACE; any other word,
// mixed case included, is OFF so that a typo silences rather than floods.
log4cplus::LogLevel parseLevelWord(const std::string& word);

// One entry of LOG4CPLUS_LOGGERS, already mapped to its log4cplus logger.
struct LoggerLevelSetting {
    bool root;               // the entry named "ALL"
    std::string loggerName;  // name + "_logger"; empty for the root logger
    log4cplus::LogLevel level;
};

// LOG4CPLUS_LOGGERS: entries separated by any mix of ',' and ';' (runs and
// empty entries skipped), each "name[:level[:ignored]]", in the order
// written so that later entries win when applied. An entry with an empty
// name (":", "::", ":ERROR") names no logger and is skipped.
std::vector<LoggerLevelSetting> parseLoggerLevels(const std::string& list);

// Default log file name for the executable at executablePath: its base name
// cut at the first '.', plus ".log"; "app.log" when the path is empty (the
// executable's path could not be read).
std::string logFileNameForExecutable(const std::string& executablePath);

}  // namespace logging
