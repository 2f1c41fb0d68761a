// SPDX-License-Identifier: MIT
// The appender word and one level word of the logger list.
#include "FuzzInput.h"
#include "logging/LogSettings.h"

#include <log4cplus/loglevel.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text = fuzz::textOf(data, size);
    logging::parseAppenderSelection(text.c_str());
    const log4cplus::LogLevel level = logging::parseLevelWord(text);
    fuzz::require(level == log4cplus::OFF_LOG_LEVEL || level == log4cplus::FATAL_LOG_LEVEL ||
                  level == log4cplus::ERROR_LOG_LEVEL || level == log4cplus::WARN_LOG_LEVEL ||
                  level == log4cplus::INFO_LOG_LEVEL || level == log4cplus::DEBUG_LOG_LEVEL ||
                  level == log4cplus::TRACE_LOG_LEVEL);
    return 0;
}
