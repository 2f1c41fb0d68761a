// SPDX-License-Identifier: MIT
// What one INFO statement costs the thread that issues it, with each kind of
// file appender behind the logger:
//   cached     - the system's AsyncRollingFileAppender (bound 50, 80 ms, as configured by default)
//   immediate  - log4cplus's RollingFileAppender, flushing every record
//   l4c_async  - log4cplus's AsyncAppender (queue of 100) over a flushing RollingFileAppender
// and the cost of a statement whose level is disabled. Every appender uses
// the system's record layout and rolls over at 1 MiB; files go to a
// temporary folder that is removed afterwards.

#include "logging/AsyncRollingFileAppender.h"
#include "logging/Log.h"
#include "logging/LogConfig.h"

#include <log4cplus/asyncappender.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

namespace {

const long ROLLOVER_SIZE = 1048576;

void attach(const char* loggerName, log4cplus::SharedAppenderPtr appender)
{
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>(kLogRecordPattern));
    appender->setThreshold(log4cplus::TRACE_LOG_LEVEL);
    log4cplus::Logger logger = log4cplus::Logger::getInstance(loggerName);
    logger.setAdditivity(false);
    logger.setLogLevel(log4cplus::INFO_LOG_LEVEL);
    logger.addAppender(appender);
}

void BM_InfoStatement(benchmark::State& state, const char* loggerName)
{
    int number = 0;
    for (auto _ : state) {
        MERIVAK_LOG_INFO(loggerName, "Page " << number << " of the DSP flash programmed ");
        ++number;
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_CAPTURE(BM_InfoStatement, cached, "cached_logger")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK_CAPTURE(BM_InfoStatement, immediate, "sync_logger")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK_CAPTURE(BM_InfoStatement, l4c_async, "l4casync_logger")->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK_CAPTURE(BM_InfoStatement, disabled, "off_logger")->Threads(1)->Threads(4)->UseRealTime();

}  // namespace

int main(int argc, char** argv)
{
    // The statement configures logging once from the environment: keep the
    // root logger without appenders so that only the loggers below write.
    ::setenv("LOG4CPLUS_APPENDER", "NONE", 1);
    ::unsetenv("LOG4CPLUS_LOGGERS");
    logElapsedSeconds();

    std::string folder = (std::filesystem::temp_directory_path() / "merivak-bench-XXXXXX").string();
    if (::mkdtemp(&folder[0]) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    log4cplus::helpers::SharedObjectPtr<log4cplus::AsyncRollingFileAppender> cached(
        new log4cplus::AsyncRollingFileAppender(folder + "/cached.log", ROLLOVER_SIZE, 50, 80));
    attach("cached_logger", log4cplus::SharedAppenderPtr(cached.get()));
    attach("sync_logger", log4cplus::SharedAppenderPtr(
                              new log4cplus::RollingFileAppender(folder + "/immediate.log", ROLLOVER_SIZE, 1, true)));
    attach("l4casync_logger", log4cplus::SharedAppenderPtr(new log4cplus::AsyncAppender(
                                  log4cplus::SharedAppenderPtr(new log4cplus::RollingFileAppender(
                                      folder + "/l4c_async.log", ROLLOVER_SIZE, 1, true)),
                                  100)));
    log4cplus::Logger::getInstance("off_logger").setLogLevel(log4cplus::ERROR_LOG_LEVEL);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    for (const char* name : {"cached_logger", "sync_logger", "l4casync_logger"}) {
        log4cplus::Logger logger = log4cplus::Logger::getInstance(name);
        for (log4cplus::SharedAppenderPtr& appender : logger.getAllAppenders()) {
            appender->close();
        }
        logger.removeAllAppenders();
    }
    cached = nullptr;
    std::filesystem::remove_all(folder);
    return 0;
}
