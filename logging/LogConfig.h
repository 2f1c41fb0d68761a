// SPDX-License-Identifier: MIT
#pragma once

// The one-time configuration of log4cplus from the LOG4CPLUS_ environment
// variables. There is no configuration file: the first log statement of the
// process (logElapsedSeconds) runs configureLogging once; variables changed
// after that have no effect.

#include <log4cplus/appender.h>

#include <string>

namespace log4cplus {
class AsyncRollingFileAppender;
}

// The record layout of every appender.
extern const char* const kLogRecordPattern;

// Root level INFO; the console and/or file appender as LOG4CPLUS_APPENDER
// selects; the final commit of the file cache registered with atexit; the
// per-logger levels of LOG4CPLUS_LOGGERS. Called by logElapsedSeconds under
// its start-up lock.
void configureLogging();

// The process-wide file appender, created from the variables on the first
// call and never destroyed, not even by log4cplus's shutdown.
log4cplus::AsyncRollingFileAppender* getFileAppender();

// The executable's base name cut at its first '.', plus ".log".
std::string defaultLogFileName();

// Gives the appender the record layout and the threshold TRACE, and attaches
// it to the root logger.
void configureAppender(const log4cplus::SharedAppenderPtr& appender);

// The final commit of the file cache at process exit (registered with
// atexit): ends the commit thread, then commits. Does nothing once the
// appender named "FILE" is gone from the root logger, or once the appender
// has been closed (log4cplus closes it when it shuts down).
void commitFileAppender();
