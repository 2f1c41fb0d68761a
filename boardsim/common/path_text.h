// SPDX-License-Identifier: MIT
// Lexical path handling shared by the launcher and the library.
#pragma once

#include <string>

namespace boardsim {

// An absolute path with "//", "." and ".." resolved lexically (no symbolic
// links followed); "/" for an empty result.
std::string normalisePath(const std::string& absolute);

}  // namespace boardsim
