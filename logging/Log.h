// SPDX-License-Identifier: MIT
#pragma once

// The log statement that every diagnostic of the system uses.
//
//   MERIVAK_LOG_ERROR("spi_logger", "SPI message cannot be sent -> " << "ERRNO : " << err);
//   MERIVAK_LOG_INFO("spi_logger", "Start erasing the whole DSP Flash... ");
//
// A statement first takes the elapsed time (which also configures logging
// once per process, whatever the level), then looks its logger up by name,
// and only if the level is enabled composes "[<seconds> sec] - <message>" in
// log4cplus's per-thread stream and hands it over with the caller's file,
// line and function signature. A disabled level composes nothing.
//
// The statement runs code that may change errno (clock reads, the one-time
// configuration): callers that log errno copy it into a local first.

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <log4cplus/loglevel.h>

#include <ios>

// Seconds since the first log statement of the process (0.0 for that one);
// runs the one-time logging configuration if it has not completed yet.
double logElapsedSeconds();

#define MERIVAK_LOG(loggerName, logLevel, pieces)                                                                      \
    do {                                                                                                               \
        const double merivakElapsed_ = logElapsedSeconds();                                                            \
        const log4cplus::Logger merivakLogger_ = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT(loggerName));           \
        if (merivakLogger_.isEnabledFor(logLevel)) {                                                                   \
            log4cplus::tostringstream& merivakStream_ = log4cplus::detail::get_macro_body_oss();                       \
            merivakStream_ << std::fixed << "[" << merivakElapsed_ << " sec]"                                          \
                           << " - " << pieces;                                                                         \
            log4cplus::detail::macro_forced_log(merivakLogger_, logLevel, merivakStream_.str(), __FILE__, __LINE__,    \
                                                __PRETTY_FUNCTION__);                                                  \
        }                                                                                                              \
    } while (false)

#define MERIVAK_LOG_ERROR(loggerName, pieces) MERIVAK_LOG(loggerName, log4cplus::ERROR_LOG_LEVEL, pieces)
#define MERIVAK_LOG_INFO(loggerName, pieces) MERIVAK_LOG(loggerName, log4cplus::INFO_LOG_LEVEL, pieces)
