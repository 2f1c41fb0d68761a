// SPDX-License-Identifier: MIT
#pragma once

// What merivak-update tells its caller: one line on standard output per step
// done, one line on standard error per failure, each also in the log on the
// program's own logger.

#include <string>

namespace update {

// "checked: ...", "up to date: ...", "backup saved: ...", "erased",
// "programmed", "verified", "restored: ...".
void reportStep(const std::string& line);
// "merivak-update: <problem>" on standard error, an ERROR record in the log.
void reportFailure(const std::string& problem);

}  // namespace update
