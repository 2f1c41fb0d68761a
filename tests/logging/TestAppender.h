// SPDX-License-Identifier: MIT
#pragma once

// What the in-process logging tests share: an appender owned by one test,
// whose records are read back from its file, and bounded polling.

#include "logging/AsyncRollingFileAppender.h"

#include "TempFolder.h"

#include <log4cplus/layout.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace logtest {

const long LARGE_ROLLOVER = 100L * 1024 * 1024;
const int NEVER = log4cplus::AsyncRollingFileAppender::MAX_COMMIT_PERIOD_MS;

// Every record is "record N" with the layout "%m%n".
inline std::string records(int first, int last)
{
    std::string text;
    for (int number = first; number <= last; ++number) {
        text += "record " + std::to_string(number) + "\n";
    }
    return text;
}

// The commit thread is stopped before the last reference goes, as an owner
// that destroys the appender must.
class TestAppender {
public:
    TestAppender(const std::string& path, long rolloverSize, int cacheBound, int periodMs, const char* layout = "%m%n")
        : m_appender(new log4cplus::AsyncRollingFileAppender(path, rolloverSize, cacheBound, periodMs))
    {
        m_appender->setLayout(std::make_unique<log4cplus::PatternLayout>(layout));
    }
    ~TestAppender() { destroy(); }
    TestAppender(const TestAppender&) = delete;
    TestAppender& operator=(const TestAppender&) = delete;

    log4cplus::AsyncRollingFileAppender* operator->() const { return m_appender.get(); }
    log4cplus::AsyncRollingFileAppender* get() const { return m_appender.get(); }

    // From here on the errors the appender reports are kept in errors.
    void recordErrors() { m_appender->setErrorHandler(std::make_unique<Recorder>(errors)); }
    // Stops the commit thread: the test decides when commits happen.
    void manualCommits()
    {
        m_appender->stop();
        recordErrors();
    }

    void logRecords(int first, int last)
    {
        for (int number = first; number <= last; ++number) {
            log("record " + std::to_string(number));
        }
    }
    void log(const std::string& message)
    {
        m_appender->doAppend(log4cplus::spi::InternalLoggingEvent("test", log4cplus::INFO_LOG_LEVEL, message, "", 0));
    }
    void destroy()
    {
        if (m_appender) {
            m_appender->stop();
            m_appender = nullptr;
        }
    }

    std::vector<std::string> errors;

private:
    class Recorder : public log4cplus::ErrorHandler {
    public:
        explicit Recorder(std::vector<std::string>& errors) : m_errors(errors) {}
        void error(const log4cplus::tstring& message) override { m_errors.push_back(message); }
        void reset() override {}

    private:
        std::vector<std::string>& m_errors;
    };

    log4cplus::helpers::SharedObjectPtr<log4cplus::AsyncRollingFileAppender> m_appender;
};

// Polls until done() holds; gives up after a limit generous enough for a
// slow, loaded machine. Returns done()'s last answer.
inline bool waitUntil(const std::function<bool()>& done)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return done();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace logtest
