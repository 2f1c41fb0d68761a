// SPDX-License-Identifier: MIT
#include "SimulatedBoard.h"

#include "ChildProcess.h"

#include <filesystem>
#include <stdexcept>
#include <utility>

namespace boardtest {

namespace fs = std::filesystem;

SimulatedBoard::SimulatedBoard() : m_folder(m_root.path()), m_stateFolder(m_root.path("board")) {}

RunResult SimulatedBoard::run(const std::vector<std::string>& command, const RunSettings& settings) const
{
    return start(command, settings).finish();
}

RunResult SimulatedBoard::merivak(const std::vector<std::string>& arguments, const RunSettings& settings) const
{
    return startMerivak(arguments, settings).finish();
}

RunningProgram SimulatedBoard::startMerivak(const std::vector<std::string>& arguments,
                                            const RunSettings& settings) const
{
    std::vector<std::string> command = {MERIVAK_BINARY};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return start(command, settings);
}

RunningProgram SimulatedBoard::start(const std::vector<std::string>& command, const RunSettings& settings) const
{
    // Each run has a folder of its own.
    const std::string files = path("run-" + std::to_string(++m_started));
    std::error_code ignored;
    fs::create_directories(files + "/log", ignored);

    testsupport::ProcessRequest request;
    request.argv = {BOARDSIM_BINARY,        "--state",   m_stateFolder,           "--trace",
                    files + "/trace.jsonl", "--summary", files + "/summary.json", "--quiet"};
    request.argv.insert(request.argv.end(), settings.simulatorOptions.begin(), settings.simulatorOptions.end());
    request.argv.push_back("--");
    request.argv.insert(request.argv.end(), command.begin(), command.end());
    // Settings of the caller's shell must not steer the tool or the board.
    request.unset = {"LOG4CPLUS_*", "SPI_BUS_DEVICE", "BOARDSIM_*"};
    request.set = {{"LOG4CPLUS_FILE_DIR", files + "/log"}};
    request.set.insert(request.set.end(), settings.environment.begin(), settings.environment.end());
    request.folder = m_folder;
    request.brokenOutput = settings.brokenStandardOutput;
    // A run that hangs fails its test instead of holding up the suite.
    request.timeoutSeconds = 120;
    return RunningProgram(testsupport::startProcess(request), files);
}

Bytes SimulatedBoard::flash() const
{
    return readFile(m_stateFolder + "/flash.bin");
}

void SimulatedBoard::setFlash(const Bytes& content) const
{
    if (!fileExists(m_stateFolder + "/flash.bin")) {
        prepare();
    }
    writeFile(m_stateFolder + "/flash.bin", content);
}

void SimulatedBoard::prepare() const
{
    const RunResult made = run({"/bin/true"});
    if (made.status != 0 || !fileExists(m_stateFolder + "/flash.bin")) {
        throw std::runtime_error("the simulator did not make its state folder:\n" + made.describe());
    }
}

std::vector<QJsonObject> RunningProgram::traceSoFar() const
{
    // A last line the simulator is still writing reads as an empty object.
    RunResult partial;
    partial.readTrace(m_files + "/trace.jsonl");
    return partial.trace;
}

RunResult RunningProgram::finish()
{
    const testsupport::ProcessResult process = m_process.finish();
    RunResult result;
    result.status = process.status();
    result.out = process.out;
    result.err = process.err;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(m_files + "/log", ignored)) {
        result.log += testsupport::readText(entry.path().string());
    }
    result.readTrace(m_files + "/trace.jsonl");
    result.readSummary(m_files + "/summary.json");
    return result;
}

}  // namespace boardtest
