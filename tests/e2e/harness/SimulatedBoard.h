// SPDX-License-Identifier: MIT
#ifndef MERIVAK_TESTS_E2E_HARNESS_SIMULATEDBOARD_H
#define MERIVAK_TESTS_E2E_HARNESS_SIMULATEDBOARD_H

// Runs programs on the board simulator and collects what the run left behind:
// exit status, standard output and error, the tool's log file, the trace and
// the summary. Each SimulatedBoard is a fresh temporary folder holding a
// persistent board state, so consecutive runs see the same flash.

#include "hal/DspFlashArea.h"

#include <QJsonArray>
#include <QJsonObject>

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace boardtest {

using Bytes = std::vector<std::uint8_t>;

// Capacity of the simulated chip and the tool's firmware area.
constexpr std::size_t FLASH_CAPACITY = 2 * 1024 * 1024;
constexpr std::size_t FIRMWARE_AREA = static_cast<std::size_t>(hal::DSP_FLASH_AREA_BYTES);

struct RunSettings {
    // Extra simulator options, e.g. {"--fault", "msg:3:EIO"}.
    std::vector<std::string> simulatorOptions;
    // Extra environment of the command (the harness already points the log
    // file into the board's folder and clears inherited SPI/log settings).
    std::vector<std::pair<std::string, std::string>> environment;
    // Standard output is a pipe whose reader is gone (writes fail with
    // EPIPE and raise SIGPIPE) instead of a file.
    bool brokenStandardOutput = false;
};

class RunResult {
public:
    int status = -1;
    std::string out;
    std::string err;
    std::string log;  // the tool's log file, empty if none was written
    std::vector<QJsonObject> trace;
    QJsonObject summary;

    // Trace events of one kind, in order.
    std::vector<QJsonObject> events(const char* ev) const;
    // Index of an event in trace (for order checks), -1 if absent.
    int indexOf(const QJsonObject& event) const;
    // Every spi_msg event, in order.
    std::vector<QJsonObject> spiMessages() const { return events("spi_msg"); }
    // gpio_write events whose path starts with prefix (e.g. "gpio48/").
    std::vector<QJsonObject> gpioWrites(const std::string& prefix = "") const;
    // Lines of the standard output that are not log records.
    std::vector<std::string> plainOutLines() const;
    // Log records (file) whose level and message match, e.g.
    // logRecords("ERROR", "SPI message cannot be sent -> ").
    std::vector<std::string> logRecords(const std::string& level, const std::string& messageStart = "") const;
    // The messages (text after "sec] - ") of all log records, in order.
    std::vector<std::string> logMessages() const;
    // Electrical level changes of a line from the summary: (t, level).
    std::vector<std::pair<std::int64_t, int>> lineLevels(int line) const;
    std::int64_t boardTimeNs() const;
    int violationsTotal() const;
    // One text with everything useful for a failure message.
    std::string describe() const;
};

// A program started on a simulated board and not yet waited for.
class RunningProgram {
public:
    RunningProgram(RunningProgram&& other) noexcept;
    RunningProgram& operator=(RunningProgram&&) = delete;
    // Kills the run if finish() was not called.
    ~RunningProgram();

    // The simulator's launcher, which passes SIGINT, SIGTERM, SIGHUP and
    // SIGQUIT on to the program.
    pid_t pid() const { return m_pid; }
    // The trace events written so far (for waiting until the program got
    // somewhere).
    std::vector<QJsonObject> traceSoFar() const;
    // Waits for the end of the run and collects it.
    RunResult finish();

private:
    friend class SimulatedBoard;
    RunningProgram() = default;

    pid_t m_pid = -1;
    std::string m_tracePath;
    std::string m_summaryPath;
    std::string m_outPath;
    std::string m_errPath;
    std::string m_logFolder;
};

class SimulatedBoard {
public:
    SimulatedBoard();
    ~SimulatedBoard();
    SimulatedBoard(const SimulatedBoard&) = delete;
    SimulatedBoard& operator=(const SimulatedBoard&) = delete;

    // The folder the command runs in; relative file names land here.
    const std::string& folder() const { return m_folder; }
    const std::string& stateFolder() const { return m_stateFolder; }
    std::string path(const std::string& name) const { return m_folder + "/" + name; }

    // Runs command (argv[0] is a path) under the simulator with this board.
    RunResult run(const std::vector<std::string>& command, const RunSettings& settings = {}) const;
    // Runs the merivak binary with the given arguments.
    RunResult merivak(const std::vector<std::string>& arguments, const RunSettings& settings = {}) const;
    // Like run() and merivak(), but returns at once; each started run has
    // its own trace, summary, output and log files, so several can run at
    // the same time.
    RunningProgram start(const std::vector<std::string>& command, const RunSettings& settings = {}) const;
    RunningProgram startMerivak(const std::vector<std::string>& arguments, const RunSettings& settings = {}) const;

    // The flash content (after at least one run made the state folder).
    Bytes flash() const;
    // Replaces the flash content; needs a state folder (see prepare()).
    void setFlash(const Bytes& content) const;
    // Makes the state folder with an erased flash, by running a no-op.
    void prepare() const;

private:
    RunningProgram start(const std::vector<std::string>& command, const RunSettings& settings,
                         const std::string& suffix) const;

    std::string m_folder;
    std::string m_stateFolder;
    std::string m_logFolder;
    mutable int m_started = 0;
};

// File helpers.
Bytes readFile(const std::string& path);
void writeFile(const std::string& path, const Bytes& content);
bool fileExists(const std::string& path);
// Deterministic pseudo-random bytes.
Bytes patternBytes(std::size_t size, std::uint32_t seed);
// Lower-case hex of bytes, as the trace shows sent bytes.
std::string hex(const Bytes& bytes);
std::string hex(std::initializer_list<std::uint8_t> bytes);

// Text of a JSON value for comparisons ("null" for null).
std::string text(const QJsonValue& value);
std::int64_t integer(const QJsonValue& value);

}  // namespace boardtest

#endif
