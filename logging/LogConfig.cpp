// SPDX-License-Identifier: MIT
#include "logging/LogConfig.h"

#include "logging/AsyncRollingFileAppender.h"
#include "logging/LogSettings.h"

#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <unistd.h>

const char* const kLogRecordPattern = "%p P:%i T:%t [%D{%F %T.%q} UTC:%d{%H:%M}] %c{2} %F:%L %m%n";

namespace {

const char* const kAppenderVariable = "LOG4CPLUS_APPENDER";
const char* const kFileDirVariable = "LOG4CPLUS_FILE_DIR";
const char* const kFileNameVariable = "LOG4CPLUS_FILE_NAME";
const char* const kFileSizeVariable = "LOG4CPLUS_FILE_SIZE";
const char* const kCacheSizeVariable = "LOG4CPLUS_FILE_CACHE_SIZE";
const char* const kCommitPeriodVariable = "LOG4CPLUS_FILE_COMMIT_PERIOD_MSEC";
const char* const kLoggersVariable = "LOG4CPLUS_LOGGERS";

const char* const kFileAppenderName = "FILE";
const char* const kConsoleAppenderName = "CONSOLE";

// The value of an environment variable, or nullptr when it is not set.
const char* readVariable(const char* name)
{
    return std::getenv(name);
}

// Shows the operator which logging variables took effect.
void echoVariable(const char* name, const char* value)
{
    std::printf("\n%s=%s\n", name, value);
}

// A numeric variable that is echoed when set; fallback when unset.
int readEchoedInt(const char* name, int fallback)
{
    const char* value = readVariable(name);
    if (value == nullptr) {
        return fallback;
    }
    echoVariable(name, value);
    return logging::parseInt32(value);
}

log4cplus::AsyncRollingFileAppender* createFileAppender()
{
    const char* directory = readVariable(kFileDirVariable);
    const char* name = readVariable(kFileNameVariable);
    // Nothing is normalised: a directory ending in '/' gives "//".
    const std::string path = std::string(directory != nullptr ? directory : logging::kDefaultLogDirectory) + "/" +
                             (name != nullptr ? std::string(name) : defaultLogFileName());
    const long rolloverSize = logging::parseFileSize(readVariable(kFileSizeVariable));
    const int cacheEntries = readEchoedInt(kCacheSizeVariable, logging::kDefaultCacheEntries);
    const int commitPeriodMs = readEchoedInt(kCommitPeriodVariable, logging::kDefaultCommitPeriodMs);
    return new log4cplus::AsyncRollingFileAppender(path, rolloverSize, cacheEntries, commitPeriodMs);
}

const log4cplus::SharedAppenderPtr& getConsoleAppender()
{
    // Standard output, not flushed per record.
    static const log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(false, false));
    return console;
}

void applyLoggerLevels(const char* list)
{
    for (const logging::LoggerLevelSetting& setting : logging::parseLoggerLevels(list)) {
        log4cplus::Logger logger =
            setting.root ? log4cplus::Logger::getRoot() : log4cplus::Logger::getInstance(setting.loggerName);
        logger.setLogLevel(setting.level);
    }
}

}  // namespace

log4cplus::AsyncRollingFileAppender* getFileAppender()
{
    // The process holds a reference of its own that it never releases: when
    // log4cplus shuts down at exit it drops the root logger's reference, and
    // the appender must not die with it while this pointer is still handed
    // out (the exit-time commit runs around that shutdown).
    static const log4cplus::SharedAppenderPtr* const instance = new log4cplus::SharedAppenderPtr(createFileAppender());
    return static_cast<log4cplus::AsyncRollingFileAppender*>(instance->get());
}

std::string defaultLogFileName()
{
    char link[4097] = {};
    const ssize_t length = ::readlink("/proc/self/exe", link, sizeof link - 1);
    return logging::logFileNameForExecutable(length > 0 ? std::string(link) : std::string());
}

void configureAppender(const log4cplus::SharedAppenderPtr& appender)
{
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>(kLogRecordPattern));
    appender->setThreshold(log4cplus::TRACE_LOG_LEVEL);
    log4cplus::Logger::getRoot().addAppender(appender);
}

void commitFileAppender()
{
    log4cplus::AsyncRollingFileAppender* const file = getFileAppender();
    // Closed means log4cplus has already shut down (or an owner closed the
    // file): its logger tree may be gone, so it is not asked anything, and
    // close() has already written what was cached.
    if (file->hasClosed()) {
        return;
    }
    if (log4cplus::Logger::getRoot().getAppender(kFileAppenderName)) {
        // The commit thread ends here, while log4cplus is whole: otherwise it
        // would go on committing (and end, running log4cplus's per-thread
        // clean-up) in the middle of log4cplus's own teardown, which closes
        // the appender after this handler. Records logged after this point
        // (by later exit handlers) are written by that close.
        file->stop();
        file->commit();
    }
}

void configureLogging()
{
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::INFO_LOG_LEVEL);

    const char* appenderChoice = readVariable(kAppenderVariable);
    if (appenderChoice != nullptr) {
        echoVariable(kAppenderVariable, appenderChoice);
    }
    const logging::AppenderSelection selection = logging::parseAppenderSelection(appenderChoice);

    if (selection.console) {
        const log4cplus::SharedAppenderPtr& console = getConsoleAppender();
        console->setName(kConsoleAppenderName);
        configureAppender(console);
    }
    if (selection.file) {
        const log4cplus::SharedAppenderPtr file(getFileAppender());
        file->setName(kFileAppenderName);
        configureAppender(file);
        if (std::atexit(commitFileAppender) != 0) {
            std::puts("Error registering commitFileAppender");
        }
    }

    const char* loggers = readVariable(kLoggersVariable);
    if (loggers != nullptr) {
        echoVariable(kLoggersVariable, loggers);
        applyLoggerLevels(loggers);
    }
}
