// SPDX-License-Identifier: MIT
#pragma once

namespace thread {

// Sleeps the calling thread for the full time, going on with the remaining
// time whenever a signal (such as thread::Thread::interrupt) cuts the sleep
// short. Returns 0 once the full time has passed, -1 on any other failure.
int sleepMicroseconds(unsigned microseconds);

}  // namespace thread
