// SPDX-License-Identifier: MIT
// The board as one process sees it: the run block shared with the launcher
// and the other processes of the run, the mapped flash content, the trace,
// the virtual clock and the records kept for the summary.
#pragma once

#include "run_block.h"
#include "trace.h"

#include <cstdint>
#include <memory>
#include <string>

namespace boardsim {

// Receives the scripted edges as the clock passes them.
class EdgeHandler {
public:
    virtual void applyEdge(const EdgeEvent& edge) = 0;

protected:
    virtual ~EdgeHandler() = default;
};

class Board {
public:
    // Maps the run block at runPath and the flash file it names, opens the
    // trace. nullptr with a reason when any of it fails.
    static std::unique_ptr<Board> attach(const char* runPath, std::string& error);

    ~Board();
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    RunBlock& run() { return *m_run; }
    const RunConfig& config() const { return m_run->config; }
    const ChipProfile& profile() const { return m_run->config.profile; }
    std::uint8_t* flash() { return m_flash; }
    Trace& trace() { return m_trace; }

    // The board lock serialises every device operation of every process of
    // the run. Not recursive.
    void lock();
    void unlock();

    std::int64_t now() const { return m_run->clockNs; }
    // Moves the clock forward to timeNs (never back), applying the scripted
    // edges it passes at their own times.
    void advanceTo(std::int64_t timeNs);
    void setEdgeHandler(EdgeHandler* handler) { m_edgeHandler = handler; }
    // Time of the next scripted edge on line after the current clock, or -1.
    std::int64_t nextEdgeTime(int line) const;

    void addViolation(std::int64_t timeNs, ViolationRule rule, const std::string& detail);
    void addLevelChange(std::int64_t timeNs, int line, int level);

private:
    Board(RunBlock* run, std::uint8_t* flash);

    RunBlock* m_run;
    std::uint8_t* m_flash;
    Trace m_trace;
    EdgeHandler* m_edgeHandler = nullptr;
};

// Holds the board lock for a scope.
class BoardLock {
public:
    explicit BoardLock(Board& board) : m_board(board) { m_board.lock(); }
    ~BoardLock() { m_board.unlock(); }
    BoardLock(const BoardLock&) = delete;
    BoardLock& operator=(const BoardLock&) = delete;

private:
    Board& m_board;
};

}  // namespace boardsim
