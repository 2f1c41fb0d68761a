// SPDX-License-Identifier: MIT
#include "SimulatedBoard.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonValue>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace boardtest {

namespace {

namespace fs = std::filesystem;

std::string readText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

// A log record line starts with its level name and " P:".
bool isLogRecord(const std::string& line, std::string* level = nullptr)
{
    static const char* const LEVELS[] = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"};
    for (const char* name : LEVELS) {
        if (startsWith(line, std::string(name) + " P:")) {
            if (level != nullptr) {
                *level = name;
            }
            return true;
        }
    }
    return false;
}

// The message of a record: what follows the elapsed-seconds prefix.
std::string recordMessage(const std::string& line)
{
    const std::string marker = " sec] - ";
    const std::size_t at = line.find(marker);
    return at == std::string::npos ? std::string() : line.substr(at + marker.size());
}

// Starts argv with env, stdout/stderr to files, in folder; returns its pid.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& folder,
            const std::string& outPath, const std::string& errPath, bool brokenOut)
{
    std::vector<char*> args;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (const std::string& e : env) {
        envp.push_back(const_cast<char*>(e.c_str()));
    }
    envp.push_back(nullptr);

    const pid_t pid = ::fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        const int in = ::open("/dev/null", O_RDONLY);
        int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int ends[2] = {-1, -1};
        if (brokenOut && ::pipe(ends) == 0) {
            ::close(ends[0]);
            out = ends[1];
        }
        const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || err < 0 || ::dup2(in, 0) < 0 || ::dup2(out, 1) < 0 || ::dup2(err, 2) < 0 ||
            ::chdir(folder.c_str()) != 0) {
            ::_exit(126);
        }
        ::execve(args[0], args.data(), envp.data());
        ::_exit(127);
    }
    return pid;
}

// Waits for pid; returns its wait status.
int waitFor(pid_t pid)
{
    int waitStatus = 0;
    while (::waitpid(pid, &waitStatus, 0) < 0) {
        if (errno != EINTR) {
            throw std::runtime_error("waitpid failed");
        }
    }
    return waitStatus;
}

std::vector<std::string> commandEnvironment(const std::string& logFolder, const RunSettings& settings)
{
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string variable(*entry);
        // Settings of the caller's shell must not steer the tool or the board.
        if (startsWith(variable, "LOG4CPLUS_") || startsWith(variable, "SPI_BUS_DEVICE=") ||
            startsWith(variable, "BOARDSIM_")) {
            continue;
        }
        // The run's own settings replace inherited ones of the same name.
        bool replaced = false;
        for (const auto& setting : settings.environment) {
            replaced = replaced || startsWith(variable, setting.first + "=");
        }
        if (!replaced) {
            env.push_back(variable);
        }
    }
    env.push_back("LOG4CPLUS_FILE_DIR=" + logFolder);
    for (const auto& [name, value] : settings.environment) {
        env.push_back(name + "=" + value);
    }
    return env;
}

}  // namespace

// ---- RunResult -------------------------------------------------------------

std::vector<QJsonObject> RunResult::events(const char* ev) const
{
    std::vector<QJsonObject> found;
    for (const QJsonObject& event : trace) {
        if (event.value(QStringLiteral("ev")).toString() == QLatin1String(ev)) {
            found.push_back(event);
        }
    }
    return found;
}

int RunResult::indexOf(const QJsonObject& event) const
{
    for (std::size_t i = 0; i < trace.size(); ++i) {
        if (trace[i] == event) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

std::vector<QJsonObject> RunResult::gpioWrites(const std::string& prefix) const
{
    std::vector<QJsonObject> found;
    for (const QJsonObject& event : events("gpio_write")) {
        if (startsWith(text(event.value(QStringLiteral("path"))), prefix)) {
            found.push_back(event);
        }
    }
    return found;
}

std::vector<std::string> RunResult::plainOutLines() const
{
    std::vector<std::string> plain;
    for (const std::string& line : splitLines(out)) {
        if (!isLogRecord(line)) {
            plain.push_back(line);
        }
    }
    return plain;
}

std::vector<std::string> RunResult::logRecords(const std::string& level, const std::string& messageStart) const
{
    std::vector<std::string> found;
    for (const std::string& line : splitLines(log)) {
        std::string lineLevel;
        if (isLogRecord(line, &lineLevel) && lineLevel == level) {
            const std::string message = recordMessage(line);
            if (startsWith(message, messageStart)) {
                found.push_back(message);
            }
        }
    }
    return found;
}

std::vector<std::string> RunResult::logMessages() const
{
    std::vector<std::string> found;
    for (const std::string& line : splitLines(log)) {
        if (isLogRecord(line)) {
            found.push_back(recordMessage(line));
        }
    }
    return found;
}

std::vector<std::pair<std::int64_t, int>> RunResult::lineLevels(int line) const
{
    std::vector<std::pair<std::int64_t, int>> levels;
    const QJsonArray changes = summary.value(QStringLiteral("gpio"))
                                   .toObject()
                                   .value(QStringLiteral("lines"))
                                   .toObject()
                                   .value(QString::number(line))
                                   .toArray();
    for (const QJsonValue& change : changes) {
        const QJsonArray pair = change.toArray();
        levels.emplace_back(integer(pair.at(0)), static_cast<int>(integer(pair.at(1))));
    }
    return levels;
}

std::int64_t RunResult::boardTimeNs() const
{
    return integer(summary.value(QStringLiteral("board_time_ns")));
}

int RunResult::violationsTotal() const
{
    const QJsonValue total = summary.value(QStringLiteral("violations_total"));
    return total.isUndefined() ? -1 : static_cast<int>(integer(total));
}

std::string RunResult::describe() const
{
    std::ostringstream text;
    text << "status " << status << "\n--- stdout\n"
         << out << "--- stderr\n"
         << err << "--- log\n"
         << log << "--- summary\n"
         << QJsonDocument(summary).toJson(QJsonDocument::Compact).toStdString() << "\n";
    return text.str();
}

// ---- SimulatedBoard --------------------------------------------------------

SimulatedBoard::SimulatedBoard()
{
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/merivak-board-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_folder = buffer.data();
    m_stateFolder = m_folder + "/board";
    m_logFolder = m_folder + "/log";
    fs::create_directory(m_logFolder);
}

SimulatedBoard::~SimulatedBoard()
{
    std::error_code ignored;
    fs::remove_all(m_folder, ignored);
}

RunResult SimulatedBoard::run(const std::vector<std::string>& command, const RunSettings& settings) const
{
    return start(command, settings, "").finish();
}

RunningProgram SimulatedBoard::start(const std::vector<std::string>& command, const RunSettings& settings) const
{
    return start(command, settings, "-" + std::to_string(++m_started));
}

RunningProgram SimulatedBoard::startMerivak(const std::vector<std::string>& arguments,
                                            const RunSettings& settings) const
{
    std::vector<std::string> command = {MERIVAK_BINARY};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return start(command, settings);
}

RunningProgram SimulatedBoard::start(const std::vector<std::string>& command, const RunSettings& settings,
                                     const std::string& suffix) const
{
    RunningProgram program;
    program.m_tracePath = m_folder + "/trace" + suffix + ".jsonl";
    program.m_summaryPath = m_folder + "/summary" + suffix + ".json";
    program.m_outPath = m_folder + "/stdout" + suffix + ".txt";
    program.m_errPath = m_folder + "/stderr" + suffix + ".txt";
    program.m_logFolder = suffix.empty() ? m_logFolder : m_logFolder + suffix;
    const std::string& tracePath = program.m_tracePath;
    const std::string& summaryPath = program.m_summaryPath;

    // Each run gets a log of its own.
    std::error_code ignored;
    fs::create_directory(program.m_logFolder, ignored);
    for (const auto& entry : fs::directory_iterator(program.m_logFolder, ignored)) {
        fs::remove_all(entry.path(), ignored);
    }
    fs::remove(tracePath, ignored);
    fs::remove(summaryPath, ignored);

    std::vector<std::string> argv = {BOARDSIM_BINARY, "--state",   m_stateFolder, "--trace",
                                     tracePath,       "--summary", summaryPath,   "--quiet"};
    argv.insert(argv.end(), settings.simulatorOptions.begin(), settings.simulatorOptions.end());
    argv.push_back("--");
    argv.insert(argv.end(), command.begin(), command.end());

    program.m_pid = spawn(argv, commandEnvironment(program.m_logFolder, settings), m_folder, program.m_outPath,
                          program.m_errPath, settings.brokenStandardOutput);
    return program;
}

// ---- RunningProgram ----------------------------------------------------------

RunningProgram::RunningProgram(RunningProgram&& other) noexcept
    : m_pid(std::exchange(other.m_pid, -1)), m_tracePath(std::move(other.m_tracePath)),
      m_summaryPath(std::move(other.m_summaryPath)), m_outPath(std::move(other.m_outPath)),
      m_errPath(std::move(other.m_errPath)), m_logFolder(std::move(other.m_logFolder))
{
}

RunningProgram::~RunningProgram()
{
    // A test that failed before finish() must not leave the run behind.
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        waitFor(m_pid);
    }
}

std::vector<QJsonObject> RunningProgram::traceSoFar() const
{
    std::vector<QJsonObject> events;
    for (const std::string& line : splitLines(readText(m_tracePath))) {
        const QJsonDocument event = QJsonDocument::fromJson(QByteArray::fromStdString(line));
        if (event.isObject()) {
            events.push_back(event.object());
        }
    }
    return events;
}

RunResult RunningProgram::finish()
{
    const int waitStatus = waitFor(std::exchange(m_pid, -1));

    RunResult result;
    result.status = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus);
    result.out = readText(m_outPath);
    result.err = readText(m_errPath);
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(m_logFolder, ignored)) {
        result.log += readText(entry.path().string());
    }
    for (const std::string& line : splitLines(readText(m_tracePath))) {
        if (!line.empty()) {
            result.trace.push_back(QJsonDocument::fromJson(QByteArray::fromStdString(line)).object());
        }
    }
    result.summary = QJsonDocument::fromJson(QByteArray::fromStdString(readText(m_summaryPath))).object();
    return result;
}

RunResult SimulatedBoard::merivak(const std::vector<std::string>& arguments, const RunSettings& settings) const
{
    std::vector<std::string> command = {MERIVAK_BINARY};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command, settings);
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

// ---- helpers -----------------------------------------------------------------

Bytes readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const Bytes& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

bool fileExists(const std::string& path)
{
    std::error_code ignored;
    return fs::exists(path, ignored);
}

Bytes patternBytes(std::size_t size, std::uint32_t seed)
{
    Bytes bytes(size);
    std::uint32_t state = seed * 2654435761U + 1U;
    for (std::uint8_t& byte : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return bytes;
}

std::string hex(const Bytes& bytes)
{
    static const char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 0x0F];
    }
    return text;
}

std::string hex(std::initializer_list<std::uint8_t> bytes)
{
    return hex(Bytes(bytes));
}

std::string text(const QJsonValue& value)
{
    if (value.isNull() || value.isUndefined()) {
        return "null";
    }
    if (value.isString()) {
        return value.toString().toStdString();
    }
    if (value.isBool()) {
        return value.toBool() ? "true" : "false";
    }
    if (value.isDouble()) {
        return std::to_string(integer(value));
    }
    return QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact).toStdString();
}

std::int64_t integer(const QJsonValue& value)
{
    return static_cast<std::int64_t>(value.toDouble(-1));
}

}  // namespace boardtest
