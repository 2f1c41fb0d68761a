// SPDX-License-Identifier: MIT
// Many threads logging through the log statement into one appender while
// its commit thread (and a second committer, as the exit-time commit is)
// writes the file: every record is written once and whole, or counted as
// lost.

#include "logging/Log.h"

#include "TestAppender.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(AppenderConcurrency, EveryRecordIsWrittenOnceOrCountedAsLost)
{
    const int threads = 4;
    const int recordsPerThread = 2000;
    // Room for every record, and a cache that overflows all the time.
    for (const int cacheBound : {threads * recordsPerThread, 16}) {
        SCOPED_TRACE("cache bound " + std::to_string(cacheBound));
        testsupport::TempFolder dir;
        logtest::TestAppender appender(dir.path("concurrency.log"), logtest::LARGE_ROLLOVER, cacheBound, 1);
        log4cplus::Logger logger = log4cplus::Logger::getInstance("concurrency_logger");
        logger.setAdditivity(false);
        logger.addAppender(log4cplus::SharedAppenderPtr(appender.get()));

        std::atomic<bool> producing(true);
        std::thread extraCommitter([&] {
            while (producing.load()) {
                appender->commit();
                std::this_thread::yield();
            }
        });
        std::vector<std::thread> producers;
        for (int thread = 0; thread < threads; ++thread) {
            producers.emplace_back([thread] {
                for (int number = 0; number < recordsPerThread; ++number) {
                    MERIVAK_LOG_INFO("concurrency_logger",
                                     "T" << thread << " R" << number << " " << std::string(40, '.'));
                }
            });
        }
        for (std::thread& producer : producers) {
            producer.join();
        }
        producing = false;
        extraCommitter.join();
        logger.removeAllAppenders();
        appender.destroy();  // the final commit

        static const std::regex RECORD("\\[\\d+\\.\\d{6} sec\\] - T([0-3]) R(\\d+) \\.{40}");
        static const std::regex WARNING(
            "--- WARNING: Log messages overflowed the cache! Lost (\\d+) messages before the next message\\. ---");
        unsigned long written = 0;
        unsigned long lost = 0;
        std::vector<long> lastNumber(threads, -1);
        std::smatch match;
        std::istringstream file(testsupport::readText(dir.path("concurrency.log")));
        for (std::string line; std::getline(file, line);) {
            if (std::regex_match(line, match, WARNING)) {
                lost += std::stoul(match[1]);
            } else if (std::regex_match(line, match, RECORD) &&
                       std::stol(match[2]) > lastNumber[std::stoul(match[1])]) {
                // Each thread's numbers grow: a repeat or a swap does not.
                lastNumber[std::stoul(match[1])] = std::stol(match[2]);
                ++written;
            } else {
                EXPECT_TRUE(line.empty() || line[0] == '*') << "out of order, repeated or cut: " << line;
            }
        }
        EXPECT_EQ(written + lost, static_cast<unsigned long>(threads * recordsPerThread));
        EXPECT_TRUE(lost == 0 || cacheBound < threads * recordsPerThread) << lost;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    // The first log statement configures logging: with no appender on the
    // root logger, only the tests' own loggers write.
    ::setenv("LOG4CPLUS_APPENDER", "NONE", 1);
    ::unsetenv("LOG4CPLUS_LOGGERS");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
