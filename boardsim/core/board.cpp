// SPDX-License-Identifier: MIT
#include "board.h"

#include "sys_io.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstring>

namespace boardsim {
namespace {

std::string reason(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

void* mapFile(const char* path, std::size_t size, std::string& error)
{
    const int fd = sys::openFile(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        error = reason(std::string("cannot open ") + path);
        return nullptr;
    }
    struct stat info {};
    if (sys::statFile(fd, &info) != 0 || static_cast<std::size_t>(info.st_size) != size) {
        error = std::string(path) + " does not have the expected size";
        sys::closeFile(fd);
        return nullptr;
    }
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    sys::closeFile(fd);
    if (memory == MAP_FAILED) {
        error = reason(std::string("cannot map ") + path);
        return nullptr;
    }
    return memory;
}

}  // namespace

std::unique_ptr<Board> Board::attach(const char* runPath, std::string& error)
{
    if (runPath == nullptr || runPath[0] == '\0') {
        error = "BOARDSIM_RUN is not set: run the program through the boardsim launcher";
        return nullptr;
    }
    auto* run = static_cast<RunBlock*>(mapFile(runPath, sizeof(RunBlock), error));
    if (run == nullptr) {
        error = "bad run block (BOARDSIM_RUN): " + error;
        return nullptr;
    }
    if (run->magic != kRunMagic || run->version != kRunVersion || run->size != sizeof(RunBlock)) {
        munmap(run, sizeof(RunBlock));
        error = std::string("bad run block (BOARDSIM_RUN): ") + runPath + " is not a run block of this version";
        return nullptr;
    }
    const std::string flashPath = std::string(run->config.stateDir) + "/flash.bin";
    auto* flash = static_cast<std::uint8_t*>(mapFile(flashPath.c_str(), run->config.profile.capacity, error));
    if (flash == nullptr) {
        munmap(run, sizeof(RunBlock));
        return nullptr;
    }
    std::unique_ptr<Board> board(new Board(run, flash));
    if (!board->m_trace.open(run->config.tracePath)) {
        error = reason(std::string("cannot open the trace ") + run->config.tracePath);
        return nullptr;
    }
    return board;
}

Board::Board(RunBlock* run, std::uint8_t* flash) : m_run(run), m_flash(flash) {}

Board::~Board()
{
    munmap(m_flash, m_run->config.profile.capacity);
    munmap(m_run, sizeof(RunBlock));
}

void Board::lock()
{
    const int result = pthread_mutex_lock(&m_run->lock);
    if (result == EOWNERDEAD) {
        // A process died inside a device call; the board state it left is
        // still the best there is.
        pthread_mutex_consistent(&m_run->lock);
    }
}

void Board::unlock()
{
    pthread_mutex_unlock(&m_run->lock);
}

void Board::advanceTo(std::int64_t timeNs)
{
    RunBlock& run = *m_run;
    while (run.nextEdge < run.config.edgeCount && run.config.edges[run.nextEdge].timeNs <= timeNs) {
        const EdgeEvent& edge = run.config.edges[run.nextEdge++];
        if (edge.timeNs > run.clockNs) {
            run.clockNs = edge.timeNs;
        }
        if (m_edgeHandler != nullptr) {
            m_edgeHandler->applyEdge(edge);
        }
    }
    if (timeNs > run.clockNs) {
        run.clockNs = timeNs;
    }
}

std::int64_t Board::nextEdgeTime(int line) const
{
    const RunBlock& run = *m_run;
    for (std::uint32_t i = run.nextEdge; i < run.config.edgeCount; ++i) {
        if (run.config.edges[i].line == line) {
            return run.config.edges[i].timeNs;
        }
    }
    return -1;
}

void Board::addViolation(std::int64_t timeNs, ViolationRule rule, const std::string& detail)
{
    RunBlock& run = *m_run;
    ++run.violationsTotal;
    if (run.violationCount < static_cast<std::uint32_t>(kMaxViolations)) {
        Violation& entry = run.violations[run.violationCount++];
        entry.timeNs = timeNs;
        entry.rule = rule;
        const std::size_t length = std::min(detail.size(), sizeof entry.detail - 1);
        std::memcpy(entry.detail, detail.data(), length);
        entry.detail[length] = '\0';
    }
    if (m_trace.enabled()) {
        JsonWriter event = Trace::event(timeNs, "violation");
        event.string("rule", violationRuleName(rule)).string("detail", detail);
        m_trace.emit(event);
    }
}

void Board::addLevelChange(std::int64_t timeNs, int line, int level)
{
    RunBlock& run = *m_run;
    if (run.historyCount >= static_cast<std::uint32_t>(kMaxHistory)) {
        ++run.historyDropped;
        return;
    }
    run.history[run.historyCount++] = LevelChange{timeNs, line, static_cast<std::uint8_t>(level)};
}

}  // namespace boardsim
