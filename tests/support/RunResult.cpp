// SPDX-License-Identifier: MIT
#include "RunResult.h"

#include "TempFolder.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonValue>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace boardtest {

namespace {

namespace fs = std::filesystem;

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

bool RunResult::readTrace(const std::string& path)
{
    trace.clear();
    bool parsed = true;
    for (const std::string& line : splitLines(testsupport::readText(path))) {
        if (line.empty()) {
            continue;
        }
        QJsonParseError error{};
        trace.push_back(QJsonDocument::fromJson(QByteArray::fromStdString(line), &error).object());
        parsed = parsed && error.error == QJsonParseError::NoError;
    }
    return parsed;
}

void RunResult::readSummary(const std::string& path)
{
    summary = QJsonDocument::fromJson(QByteArray::fromStdString(testsupport::readText(path))).object();
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
