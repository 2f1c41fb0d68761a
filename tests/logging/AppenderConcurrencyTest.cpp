// SPDX-License-Identifier: MIT
// Many threads logging through log4cplus into one appender while its commit
// thread (and a second committer, as the exit-time commit is) writes the
// file: every record is accounted for, each at most once and whole.

#include "logging/AsyncRollingFileAppender.h"

#include "TestFiles.h"

#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

using log4cplus::AsyncRollingFileAppender;

namespace {

struct Accounting {
    int written = 0;
    unsigned long lost = 0;
    std::vector<std::string> defects;
};

// Records read "T<thread> R<number> <padding>"; warnings carry lost counts.
Accounting account(const std::string& content, int threads)
{
    static const std::regex RECORD("T(\\d+) R(\\d+) \\.{40}");
    static const std::regex WARNING(
        "--- WARNING: Log messages overflowed the cache! Lost (\\d+) messages before the next "
        "message\\. ---");
    Accounting result;
    std::vector<long> lastNumber(static_cast<std::size_t>(threads), -1);
    for (const std::string& line : logtest::splitLines(content)) {
        std::smatch match;
        if (line.empty() || line[0] == '*') {
            continue;  // the restart banner
        }
        if (std::regex_match(line, match, WARNING)) {
            result.lost += std::stoul(match[1]);
        } else if (std::regex_match(line, match, RECORD)) {
            const auto thread = static_cast<std::size_t>(std::stoi(match[1]));
            const long number = std::stol(match[2]);
            // Each thread's records keep their order; a repeat or a swap
            // shows up as a number that does not grow.
            if (thread >= lastNumber.size() || number <= lastNumber[thread]) {
                result.defects.push_back("out of order or repeated: " + line);
            } else {
                lastNumber[thread] = number;
            }
            ++result.written;
        } else {
            result.defects.push_back("not a whole record: " + line);
        }
    }
    return result;
}

class ConcurrencyTest : public ::testing::Test {
protected:
    // Logs from `threads` producers through a logger that feeds only the
    // appender, while another thread commits as well, then returns the file.
    std::string run(int threads, int recordsPerThread, int cacheBound, int periodMs)
    {
        const std::string path = dir.path("concurrency.log");
        log4cplus::helpers::SharedObjectPtr<AsyncRollingFileAppender> appender(
            new AsyncRollingFileAppender(path, 100L * 1024 * 1024, cacheBound, periodMs));
        appender->setLayout(std::make_unique<log4cplus::PatternLayout>("%m%n"));
        log4cplus::Logger logger = log4cplus::Logger::getInstance("concurrency_test");
        logger.setAdditivity(false);
        logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
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
            producers.emplace_back([&logger, thread, recordsPerThread] {
                for (int number = 0; number < recordsPerThread; ++number) {
                    logger.forcedLog(log4cplus::INFO_LOG_LEVEL, "T" + std::to_string(thread) + " R" +
                                                                    std::to_string(number) + " " +
                                                                    std::string(40, '.'));
                }
            });
        }
        for (std::thread& producer : producers) {
            producer.join();
        }
        producing = false;
        extraCommitter.join();

        logger.removeAllAppenders();
        appender->stop();
        appender->commit();
        return logtest::readFile(path);
    }

    logtest::TempDir dir;
};

TEST_F(ConcurrencyTest, NoRecordIsLostWhileTheCacheHasRoom)
{
    const int threads = 4;
    const int records = 2000;
    const Accounting result = account(run(threads, records, threads * records, 1), threads);
    EXPECT_EQ(result.written, threads * records);
    EXPECT_EQ(result.lost, 0u);
    EXPECT_TRUE(result.defects.empty()) << result.defects.front();
}

TEST_F(ConcurrencyTest, WrittenPlusLostEqualsLoggedUnderOverload)
{
    const int threads = 8;
    const int records = 2000;
    const Accounting result = account(run(threads, records, 16, 1), threads);
    EXPECT_EQ(static_cast<unsigned long>(result.written) + result.lost, static_cast<unsigned long>(threads * records));
    EXPECT_TRUE(result.defects.empty()) << result.defects.front();
}

}  // namespace
