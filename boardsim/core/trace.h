// SPDX-License-Identifier: MIT
// The trace file: one JSON object a line, appended by every process of the
// run. Each line goes out in one write on a descriptor opened with O_APPEND,
// under the board lock, so lines never mix and their times never go back.
#pragma once

#include "json_writer.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace boardsim {

class Trace {
public:
    Trace() = default;
    ~Trace();
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    // Opens path for appending; an empty path leaves tracing off. False when
    // the file cannot be opened.
    bool open(const char* path);

    bool enabled() const { return m_fd.load(std::memory_order_relaxed) >= 0; }
    // Read without the board lock by close() and friends, hence atomic.
    int fd() const { return m_fd.load(std::memory_order_relaxed); }

    // Moves the trace to another descriptor number, because the program is
    // about to take this one (dup2 onto it).
    void moveAway();

    // A writer that already holds {"t":time,"ev":name.
    static JsonWriter event(std::int64_t timeNs, const char* name);

    // Adds "errno": the name of err, or null for 0.
    static void putErrno(JsonWriter& event, int err);

    // Closes the object and writes the line (or keeps it while held).
    void emit(JsonWriter& event);

    // Lines emitted between hold() and release() go out in one write at
    // release(): the events of one SPI message cost one system call.
    void hold() { ++m_holding; }
    void release();

private:
    std::atomic<int> m_fd{-1};
    int m_holding = 0;
    std::string m_pending;
};

}  // namespace boardsim
