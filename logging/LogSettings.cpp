// SPDX-License-Identifier: MIT
#include "logging/LogSettings.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>

#include <libgen.h>

namespace logging {

const char* const kDefaultLogDirectory = "/var/lib/vosta/log";

namespace {

std::int64_t clampToInt32(std::int64_t value)
{
    return std::clamp<std::int64_t>(value, INT32_MIN, INT32_MAX);
}

std::string upperCased(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); });
    return text;
}

}  // namespace

AppenderSelection parseAppenderSelection(const char* value)
{
    if (value == nullptr) {
        return {true, true};
    }
    const std::string word(value);
    if (word == "ALL") {
        return {true, true};
    }
    if (word == "CONSOLE") {
        return {true, false};
    }
    if (word == "FILE") {
        return {false, true};
    }
    return {false, false};
}

int parseInt32(const char* value)
{
    if (value == nullptr) {
        return 0;
    }
    // strtol saturates at LONG_MIN/LONG_MAX; clamping the 64-bit reading to
    // 32 bits gives the same saturation the board's 32-bit long has.
    const long parsed = std::strtol(value, nullptr, 10);
    return static_cast<int>(clampToInt32(static_cast<std::int64_t>(parsed)));
}

long parseFileSize(const char* value)
{
    if (value == nullptr) {
        return kDefaultFileSize;
    }
    const std::int64_t number = parseInt32(value);
    const std::string units = upperCased(value);
    std::int64_t bytes = number;
    if (units.find("KB") != std::string::npos) {
        bytes = number * 1024;
    } else if (units.find("MB") != std::string::npos) {
        bytes = number * 1048576;
    }
    // At most 2^31 * 2^20 in magnitude: no 64-bit overflow before the clamp.
    return static_cast<long>(clampToInt32(bytes));
}

log4cplus::LogLevel parseLevelWord(const std::string& word)
{
    struct Word {
        const char* upper;
        const char* lower;
        log4cplus::LogLevel level;
    };
    static const Word kWords[] = {
        {"OFF", "off", log4cplus::OFF_LOG_LEVEL},       {"FATAL", "fatal", log4cplus::FATAL_LOG_LEVEL},
        {"ERROR", "error", log4cplus::ERROR_LOG_LEVEL}, {"WARN", "warn", log4cplus::WARN_LOG_LEVEL},
        {"INFO", "info", log4cplus::INFO_LOG_LEVEL},    {"DEBUG", "debug", log4cplus::DEBUG_LOG_LEVEL},
        {"TRACE", "trace", log4cplus::TRACE_LOG_LEVEL},
    };
    if (word.empty()) {
        return log4cplus::TRACE_LOG_LEVEL;
    }
    for (const Word& known : kWords) {
        if (word == known.upper || word == known.lower) {
            return known.level;
        }
    }
    return log4cplus::OFF_LOG_LEVEL;
}

std::vector<LoggerLevelSetting> parseLoggerLevels(const std::string& list)
{
    static const char* const kSeparators = ",;";
    std::vector<LoggerLevelSetting> settings;
    std::string::size_type begin = list.find_first_not_of(kSeparators);
    while (begin != std::string::npos) {
        std::string::size_type end = list.find_first_of(kSeparators, begin);
        if (end == std::string::npos) {
            end = list.size();
        }
        const std::string entry = list.substr(begin, end - begin);
        begin = list.find_first_not_of(kSeparators, end);

        const std::string::size_type nameEnd = entry.find(':');
        const std::string name = entry.substr(0, nameEnd);
        if (name.empty()) {
            continue;
        }
        std::string word;
        if (nameEnd != std::string::npos) {
            const std::string::size_type wordBegin = nameEnd + 1;
            const std::string::size_type wordEnd = entry.find(':', wordBegin);
            word = entry.substr(wordBegin, wordEnd == std::string::npos ? std::string::npos : wordEnd - wordBegin);
        }
        const bool root = name == "ALL";
        settings.push_back({root, root ? std::string() : name + "_logger", parseLevelWord(word)});
    }
    return settings;
}

std::string logFileNameForExecutable(const std::string& executablePath)
{
    std::string result = "app";
    if (!executablePath.empty()) {
        // POSIX basename may modify its argument: give it a copy.
        std::string pathCopy = executablePath;
        result = ::basename(&pathCopy[0]);
        const std::string::size_type dot = result.find('.');
        if (dot != std::string::npos) {
            result.erase(dot);
        }
    }
    return result + ".log";
}

}  // namespace logging
