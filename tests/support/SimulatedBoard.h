// SPDX-License-Identifier: MIT
#pragma once

// Runs programs on the board simulator and collects what the run left behind
// (RunResult). Each SimulatedBoard is a fresh temporary folder holding a
// persistent board state, so consecutive runs see the same flash.

#include "ChildProcess.h"
#include "RunResult.h"
#include "TempFolder.h"
#include "hal/DspFlashArea.h"

#include <QJsonObject>

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace boardtest {

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

// A program started on a simulated board and not yet waited for; killed
// (SIGKILL) with the simulator if it goes without finish().
class RunningProgram {
public:
    // The simulator's launcher, which passes SIGINT, SIGTERM, SIGHUP and
    // SIGQUIT on to the program.
    pid_t pid() const { return m_process.pid(); }
    // The trace events written so far (for waiting until the program got
    // somewhere).
    std::vector<QJsonObject> traceSoFar() const;
    // Waits for the end of the run and collects it.
    RunResult finish();

private:
    friend class SimulatedBoard;
    // files: the run's own folder, for its trace, summary and log folder.
    RunningProgram(testsupport::RunningProcess process, std::string files)
        : m_process(std::move(process)), m_files(std::move(files))
    {
    }

    testsupport::RunningProcess m_process;
    std::string m_files;
};

class SimulatedBoard {
public:
    SimulatedBoard();
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
    // Like merivak(), but returns at once; several can run at the same time.
    RunningProgram startMerivak(const std::vector<std::string>& arguments, const RunSettings& settings = {}) const;

    // The flash content (after at least one run made the state folder).
    Bytes flash() const;
    // Replaces the flash content; needs a state folder (see prepare()).
    void setFlash(const Bytes& content) const;
    // Makes the state folder with an erased flash, by running a no-op.
    void prepare() const;

private:
    RunningProgram start(const std::vector<std::string>& command, const RunSettings& settings) const;

    testsupport::TempFolder m_root{"merivak-board"};
    std::string m_folder;
    std::string m_stateFolder;
    mutable int m_started = 0;
};

}  // namespace boardtest
