// SPDX-License-Identifier: MIT
#pragma once

// Runs programs on the board simulator and collects what the run left behind
// (RunResult). Each SimulatedBoard is a fresh temporary folder holding a
// persistent board state, so consecutive runs see the same flash.

#include "RunResult.h"
#include "TempFolder.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace boardtest {

// Capacity of the simulated chip and the tool's firmware area.
constexpr std::size_t FLASH_CAPACITY = 2 * 1024 * 1024;
constexpr std::size_t FIRMWARE_AREA = 512 * 256;

struct RunSettings {
    // Extra simulator options, e.g. {"--fault", "msg:3:EIO"}.
    std::vector<std::string> simulatorOptions;
    // Extra environment of the command (the harness already points the log
    // file into the board's folder and clears inherited SPI/log settings).
    std::vector<std::pair<std::string, std::string>> environment;
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

    // The flash content (after at least one run made the state folder).
    Bytes flash() const;
    // Replaces the flash content; needs a state folder (see prepare()).
    void setFlash(const Bytes& content) const;
    // Makes the state folder with an erased flash, by running a no-op.
    void prepare() const;

private:
    testsupport::TempFolder m_root{"merivak-board"};
    std::string m_folder;
    std::string m_stateFolder;
    std::string m_logFolder;
};

}  // namespace boardtest
