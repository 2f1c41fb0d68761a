// SPDX-License-Identifier: MIT
// A small program that logs like the tool does, for the tests that need a
// whole process: configuration from its environment, the console and file
// output, the first statement's time base and the final commit at exit.
//
//   logging_child records      INFO and ERROR on "spi_logger", INFO on "exception_logger",
//                              DEBUG on "spi_logger" (disabled by default)
//   logging_child exit N       N INFO records, then exit() at once
//   logging_child disabled     a disabled INFO statement first, then an ERROR one
//   logging_child elapsed      two statements 30 ms apart
//   logging_child threads      the first statements from two threads at once
//   logging_child atexit       statements from exit handlers registered before
//                              and after the first statement
//   logging_child exitthread N N INFO records; an exit handler that runs after
//                              the final commit prints whether the commit
//                              thread still runs, then logs one more record
//
// With LOGGING_CHILD_STATIC_INIT set, a statement runs during static
// initialisation, before main.

#include "logging/AsyncRollingFileAppender.h"
#include "logging/Log.h"
#include "logging/LogConfig.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

namespace {

struct StaticInitLogger {
    StaticInitLogger()
    {
        if (std::getenv("LOGGING_CHILD_STATIC_INIT") != nullptr) {
            MERIVAK_LOG_INFO("spi_logger", "static initialisation record");
        }
    }
} staticInitLogger;

// Shows on standard output whether a message was composed.
const char* composed(const char* what)
{
    std::printf("composed %s\n", what);
    return what;
}

void logFromTwoThreads()
{
    std::mutex mutex;
    std::condition_variable ready;
    int waiting = 0;
    auto firstStatement = [&](const char* name) {
        {
            std::unique_lock<std::mutex> lock(mutex);
            ++waiting;
            ready.notify_all();
            ready.wait(lock, [&] { return waiting == 2; });
        }
        MERIVAK_LOG_INFO("spi_logger", "first statement of " << name);
    };
    std::thread one(firstStatement, "one");
    std::thread two(firstStatement, "two");
    one.join();
    two.join();
}

void logAtExitRegisteredFirst()
{
    MERIVAK_LOG_INFO("spi_logger", "exit handler registered first");
}
void logAtExitRegisteredLast()
{
    MERIVAK_LOG_INFO("spi_logger", "exit handler registered last");
}

// Runs after the final commit and before log4cplus shuts down: by then the
// commit thread must be gone, so that it has no part in log4cplus's teardown.
void reportCommitThreadAtExit()
{
    std::printf("commit thread running at exit: %s\n", getFileAppender()->isRunning() ? "yes" : "no");
    std::fflush(stdout);
    MERIVAK_LOG_INFO("spi_logger", "record after the final commit");
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string scenario = argc > 1 ? argv[1] : "records";
    if (scenario == "records") {
        MERIVAK_LOG_INFO("spi_logger", "info record " << 1);
        MERIVAK_LOG_ERROR("spi_logger", "error record " << 2);
        MERIVAK_LOG_INFO("exception_logger", "exception info record");
        // The root logger stands at INFO: a statement below passes only where
        // a logger's level is lowered.
        MERIVAK_LOG("spi_logger", log4cplus::DEBUG_LOG_LEVEL, "debug record");
    } else if (scenario == "exit" && argc > 2) {
        const int count = std::atoi(argv[2]);
        for (int number = 1; number <= count; ++number) {
            MERIVAK_LOG_INFO("spi_logger", "exit record " << number);
        }
        std::exit(0);
    } else if (scenario == "exitthread" && argc > 2) {
        std::atexit(reportCommitThreadAtExit);
        const int count = std::atoi(argv[2]);
        for (int number = 1; number <= count; ++number) {
            MERIVAK_LOG_INFO("spi_logger", "exit record " << number);
        }
    } else if (scenario == "disabled") {
        MERIVAK_LOG_INFO("spi_logger", composed("info"));
        MERIVAK_LOG_ERROR("spi_logger", composed("error"));
    } else if (scenario == "elapsed") {
        MERIVAK_LOG_INFO("spi_logger", "first");
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        MERIVAK_LOG_INFO("spi_logger", "second");
    } else if (scenario == "atexit") {
        // Exit handlers run in reverse order: "last" before the final commit
        // that the first statement registers, "first" after it.
        std::atexit(logAtExitRegisteredFirst);
        MERIVAK_LOG_INFO("spi_logger", "main record");
        std::atexit(logAtExitRegisteredLast);
    } else if (scenario == "threads") {
        logFromTwoThreads();
    } else {
        std::fprintf(stderr, "unknown scenario %s\n", scenario.c_str());
        return 2;
    }
    return 0;
}
