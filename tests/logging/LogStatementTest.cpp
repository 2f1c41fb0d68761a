// SPDX-License-Identifier: MIT
// The log statement in this process: configured once from an environment
// that attaches no appender to the root logger, each test then captures what
// the statement hands to log4cplus on a logger of its own.

#include "logging/Log.h"

#include <log4cplus/appender.h>
#include <log4cplus/spi/loggingevent.h>
#include <log4cplus/logger.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Captured {
    log4cplus::LogLevel level;
    std::string message;
    std::string file;
    int line;
    std::string function;
};

class CapturingAppender : public log4cplus::Appender {
public:
    ~CapturingAppender() override { destructorImpl(); }
    void close() override {}

    std::vector<Captured> events()
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_events;
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_events.push_back(
            {event.getLogLevel(), event.getMessage(), event.getFile(), event.getLine(), event.getFunction()});
    }

private:
    std::mutex m_mutex;
    std::vector<Captured> m_events;
};

class LogStatementTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
        loggerName = std::string(info->name()) + "_logger";
        log4cplus::Logger logger = log4cplus::Logger::getInstance(loggerName);
        logger.setAdditivity(false);
        logger.addAppender(log4cplus::SharedAppenderPtr(capture));
    }
    void TearDown() override { log4cplus::Logger::getInstance(loggerName).removeAllAppenders(); }

    std::string loggerName;
    CapturingAppender* capture = new CapturingAppender;
    log4cplus::SharedAppenderPtr keep{capture};
};

const std::regex MESSAGE_FORM("\\[\\d+\\.\\d{6} sec\\] - (.*)");

int composedPieces = 0;
int countedPiece()
{
    ++composedPieces;
    return composedPieces;
}

TEST_F(LogStatementTest, HandsOverElapsedSecondsMessageAndCallerLocation)
{
    const int line = __LINE__ + 1;
    MERIVAK_LOG_INFO(loggerName.c_str(), "value " << 42 << " and " << std::string("text"));
    const std::vector<Captured> events = capture->events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].level, 20000);
    std::smatch match;
    ASSERT_TRUE(std::regex_match(events[0].message, match, MESSAGE_FORM)) << events[0].message;
    EXPECT_EQ(match[1], "value 42 and text");
    EXPECT_EQ(events[0].file, __FILE__);
    EXPECT_EQ(events[0].line, line);
    EXPECT_EQ(events[0].function, __PRETTY_FUNCTION__);
}

TEST_F(LogStatementTest, ErrorStatementsCarryLevelError)
{
    MERIVAK_LOG_ERROR(loggerName.c_str(), "failed -> "
                                              << "ERRNO : " << 5);
    const std::vector<Captured> events = capture->events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].level, 40000);
    EXPECT_TRUE(std::regex_match(events[0].message, MESSAGE_FORM));
    EXPECT_NE(events[0].message.find(" sec] - failed -> ERRNO : 5"), std::string::npos);
}

TEST_F(LogStatementTest, DisabledLevelComposesNothing)
{
    log4cplus::Logger::getInstance(loggerName).setLogLevel(log4cplus::ERROR_LOG_LEVEL);
    composedPieces = 0;
    MERIVAK_LOG_INFO(loggerName.c_str(), "never " << countedPiece());
    EXPECT_EQ(composedPieces, 0);
    EXPECT_TRUE(capture->events().empty());
    MERIVAK_LOG_ERROR(loggerName.c_str(), "logged " << countedPiece());
    EXPECT_EQ(composedPieces, 1);
    EXPECT_EQ(capture->events().size(), 1u);
}

TEST_F(LogStatementTest, ConcurrentStatementsKeepTheirMessagesApart)
{
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([this, thread] {
            for (int number = 0; number < 200; ++number) {
                MERIVAK_LOG_INFO(loggerName.c_str(), "thread " << thread << " number " << number);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::vector<Captured> events = capture->events();
    ASSERT_EQ(events.size(), 800u);
    const std::regex form("\\[\\d+\\.\\d{6} sec\\] - thread [0-3] number \\d+");
    for (const Captured& event : events) {
        EXPECT_TRUE(std::regex_match(event.message, form)) << event.message;
    }
}

}  // namespace

int main(int argc, char** argv)
{
    // No appender on the root logger: only the tests' own loggers write.
    ::setenv("LOG4CPLUS_APPENDER", "NONE", 1);
    ::unsetenv("LOG4CPLUS_LOGGERS");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
