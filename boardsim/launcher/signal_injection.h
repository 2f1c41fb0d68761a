// SPDX-License-Identifier: MIT
// --signal SIG@msg:N: a signal the program sends itself at a set SPI message,
// so that tests can interrupt it at an exact point of an operation.
#pragma once

#include "run_block.h"

#include <string>

namespace boardsim {

// Parses SIG@msg:N. SIG is INT, TERM, HUP, QUIT, ALRM, USR1, USR2, PIPE, KILL,
// with or without "SIG", or a number 1..64; N counts SPI_IOC_MESSAGE calls
// from 1. False with a reason when the text is not valid.
bool parseSignalInjection(const std::string& text, SignalInjection& injection, std::string& error);

}  // namespace boardsim
