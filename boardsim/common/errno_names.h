// SPDX-License-Identifier: MIT
// errno values by name and back, for fault options and the trace.
#pragma once

#include <string>

namespace boardsim {

// "EIO" for EIO; the decimal number for a value without a name.
std::string errnoName(int error);

// EIO for "EIO" or "5"; 0 when text is neither a known name nor a positive
// number.
int parseErrno(const std::string& text);

}  // namespace boardsim
