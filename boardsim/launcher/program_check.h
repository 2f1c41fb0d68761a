// SPDX-License-Identifier: MIT
// Checks on the command before it runs.
#pragma once

#include <string>

namespace boardsim {

// The file execvp would run for name, or empty when there is none.
std::string findProgram(const std::string& name);

// True for an ELF program without a program interpreter (statically linked):
// nothing can be preloaded into it, so it would reach the real devices.
bool staticallyLinked(const std::string& program);

}  // namespace boardsim
