// SPDX-License-Identifier: MIT
// The rules that turn the text of each logging variable into a setting, one
// table: a rule, the text, and the setting it gives, written out as text.

#include "logging/AsyncRollingFileAppender.h"
#include "logging/LogSettings.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using log4cplus::AsyncRollingFileAppender;

using Rule = std::string (*)(const char*);
const Rule fileSize = [](const char* text) {
    return std::to_string(logging::parseFileSize(text));
};
const Rule fileName = [](const char* text) {
    return logging::logFileNameForExecutable(text);
};
// The appender's constructor bounds the numbers it is given.
const Rule cacheEntries = [](const char* text) {
    return std::to_string(AsyncRollingFileAppender::boundedCacheEntries(logging::parseInt32(text)));
};
const Rule commitPeriod = [](const char* text) {
    return std::to_string(AsyncRollingFileAppender::boundedCommitPeriodMs(logging::parseInt32(text)));
};
const Rule appenders = [](const char* text) {
    const logging::AppenderSelection selection = logging::parseAppenderSelection(text);
    return std::string(selection.console ? "console" : "-") + (selection.file ? "+file" : "+-");
};
// Each entry as logger=level; the root logger as "root".
std::string loggers(const char* text)
{
    std::string shown;
    for (const logging::LoggerLevelSetting& setting : logging::parseLoggerLevels(text)) {
        shown += (setting.root ? "root" : setting.loggerName) + "=" + std::to_string(setting.level) + " ";
    }
    return shown;
}
const struct {
    Rule apply;
    const char* text;  // nullptr: the variable is not set
    const char* setting;
} kRules[] = {
    {appenders, nullptr, "console+file"},
    {appenders, "ALL", "console+file"},
    {appenders, "CONSOLE", "console+-"},
    {appenders, "FILE", "-+file"},
    {appenders, "console", "-+-"},
    {appenders, "ALL ", "-+-"},
    // The leading number as strtol reads it, saturated at the board's
    // 32-bit long; units anywhere, in any case, "KB" looked for before "MB".
    {fileSize, nullptr, "1048576"},
    {fileSize, "10kB", "10240"},
    {fileSize, "3MB", "3145728"},
    {fileSize, "100", "100"},
    {fileSize, "0x10", "0"},
    {fileSize, "-2147483649", "-2147483648"},
    {fileSize, "4 MB or KB", "4096"},
    {fileSize, "-5kB", "-5120"},
    {fileSize, "2047MB", "2146435072"},
    {fileSize, "2048MB", "2147483647"},
    {fileSize, "-3000MB", "-2147483648"},
    {cacheEntries, "0", "50"},
    {cacheEntries, "-99999999999", "50"},
    {cacheEntries, "1", "1"},
    {cacheEntries, "2147483648", "2147483647"},
    {commitPeriod, "0", "0"},
    {commitPeriod, "  42ms", "42"},
    {commitPeriod, "-1", "80"},
    {commitPeriod, "2147483", "2147483"},
    {commitPeriod, "2147484", "2147483"},
    // Level words: exactly the upper- and lower-case ones; an empty word is
    // TRACE, any other word OFF.
    {loggers, "a:OFF,b:off,c:FATAL,d:fatal,e:ERROR,f:error,g:WARN",
     "a_logger=60000 b_logger=60000 c_logger=50000 d_logger=50000 e_logger=40000 f_logger=40000 g_logger=30000 "},
    {loggers, "h:warn,i:INFO,j:info,k:DEBUG,l:debug,m:TRACE,n:trace,o:",
     "h_logger=30000 i_logger=20000 j_logger=20000 k_logger=10000 l_logger=10000 m_logger=0 n_logger=0 o_logger=0 "},
    {loggers, "p:Info,q:eRROR,r:INFO ,s:verbose,t:20000",
     "p_logger=60000 q_logger=60000 r_logger=60000 s_logger=60000 t_logger=60000 "},
    // Entries in order, repeats kept so that the later wins; text after a
    // second ':' ignored; empty entries and empty names skipped.
    {loggers, "spi:DEBUG,exception:ERROR;ALL:ERROR,all",
     "spi_logger=10000 exception_logger=40000 root=40000 all_logger=0 "},
    {loggers, "spi:INFO;spi:ERROR", "spi_logger=20000 spi_logger=40000 "},
    {loggers, "spi:ERROR:DEBUG,exception::ERROR", "spi_logger=40000 exception_logger=0 "},
    {loggers, ",;,spi:DEBUG;;:;::,:ERROR,exception:ERROR;,", "spi_logger=10000 exception_logger=40000 "},
    {loggers, ":::", ""},
    // The executable's base name cut at its first '.'.
    {fileName, "/opt/tools/tool.new.bin", "tool.log"},
    {fileName, "/opt/v1.2/tool", "tool.log"},
    {fileName, "/opt/.hidden", ".log"},
    {fileName, "", "app.log"},
};

TEST(LogSettings, EachTextGivesItsSetting)
{
    for (const auto& rule : kRules) {
        EXPECT_EQ(rule.apply(rule.text), rule.setting) << (rule.text != nullptr ? rule.text : "(not set)");
    }
}

}  // namespace
