// SPDX-License-Identifier: MIT
// A small program that logs like the tool does, for the tests that need a
// whole process: configuration from its environment, the console and file
// output, the first statement's time base and the final commit at exit.
//
//   logging_child [records] INFO and ERROR on "spi_logger", INFO on
//                           "exception_logger", DEBUG on "spi_logger"
//   logging_child atexit    3 INFO records between two exit handlers, one
//                           registered before the first statement, one after
//   logging_child timebase  an INFO and, 30 ms later, an ERROR statement, each
//                           showing on standard output when it is composed
//   logging_child threads   the first statements from two threads at once
//
// With LOGGING_CHILD_STATIC_INIT set, a statement runs during static
// initialisation, before main.

#include "logging/AsyncRollingFileAppender.h"
#include "logging/Log.h"
#include "logging/LogConfig.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
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

const char* composed(const char* what)
{
    std::printf("composed %s\n", what);
    return what;
}

void logFromTwoThreads()
{
    std::atomic<int> started(0);
    auto firstStatement = [&started](const char* name) {
        // Both threads are running before either logs.
        ++started;
        while (started.load() < 2) {
        }
        MERIVAK_LOG_INFO("spi_logger", "first statement of " << name);
    };
    std::thread one(firstStatement, "one");
    std::thread two(firstStatement, "two");
    one.join();
    two.join();
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string scenario = argc > 1 ? argv[1] : "records";
    if (scenario == "atexit") {
        // Exit handlers run in reverse order: the first statement registers
        // the final commit between these two. The first one runs after that
        // commit and before log4cplus shuts down: by then the commit thread
        // must be gone, so that it has no part in log4cplus's teardown.
        std::atexit([] {
            std::printf("commit thread running at exit: %s\n", getFileAppender()->isRunning() ? "yes" : "no");
            std::fflush(stdout);
            MERIVAK_LOG_INFO("spi_logger", "record after the final commit");
        });
        for (int number = 1; number <= 3; ++number) {
            MERIVAK_LOG_INFO("spi_logger", "exit record " << number);
        }
        std::atexit([] { MERIVAK_LOG_INFO("spi_logger", "record before the final commit"); });
    } else if (scenario == "timebase") {
        MERIVAK_LOG_INFO("spi_logger", composed("info"));
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        MERIVAK_LOG_ERROR("spi_logger", composed("error"));
    } else if (scenario == "threads") {
        logFromTwoThreads();
    } else {
        MERIVAK_LOG_INFO("spi_logger", "info record " << 1);
        MERIVAK_LOG_ERROR("spi_logger", "error record " << 2);
        MERIVAK_LOG_INFO("exception_logger", "exception info record");
        // The root logger stands at INFO: this passes only where a logger's
        // level is lowered.
        MERIVAK_LOG("spi_logger", log4cplus::DEBUG_LOG_LEVEL, "debug record");
    }
    return 0;
}
