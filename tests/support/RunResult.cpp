// SPDX-License-Identifier: MIT
#include "RunResult.h"

#include "TempFolder.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonValue>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace boardtest {

namespace {

std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The level of a log record line ("ERROR", ...), which starts with its level
// name and " P:"; empty for any other line.
std::string levelOf(const std::string& line)
{
    for (const char* name : {"FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"}) {
        if (startsWith(line, std::string(name) + " P:")) {
            return name;
        }
    }
    return "";
}

}  // namespace

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
    const auto at = std::find(trace.begin(), trace.end(), event);
    return at == trace.end() ? -1 : static_cast<int>(at - trace.begin());
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
        if (levelOf(line).empty()) {
            plain.push_back(line);
        }
    }
    return plain;
}

std::vector<std::string> RunResult::logRecords(const std::string& level, const std::string& messageStart) const
{
    std::vector<std::string> found;
    for (const std::string& line : splitLines(log)) {
        const std::string lineLevel = levelOf(line);
        const std::size_t at = line.find(" sec] - ");
        const std::string message = at == std::string::npos ? "" : line.substr(at + 8);
        if (!lineLevel.empty() && (level.empty() || lineLevel == level) && startsWith(message, messageStart)) {
            found.push_back(message);
        }
    }
    return found;
}

std::int64_t RunResult::boardTimeNs() const
{
    return integer(summary.value(QStringLiteral("board_time_ns")));
}

int RunResult::violationsTotal() const
{
    return static_cast<int>(integer(summary.value(QStringLiteral("violations_total"))));
}

std::string RunResult::describe() const
{
    return "status " + std::to_string(status) + "\n--- stdout\n" + out + "--- stderr\n" + err + "--- log\n" + log +
           "--- summary\n" + QJsonDocument(summary).toJson(QJsonDocument::Compact).toStdString() + "\n";
}

void RunResult::readTrace(const std::string& path)
{
    trace.clear();
    for (const std::string& line : splitLines(testsupport::readText(path))) {
        if (!line.empty()) {
            trace.push_back(QJsonDocument::fromJson(QByteArray::fromStdString(line)).object());
        }
    }
}

void RunResult::readSummary(const std::string& path)
{
    summary = QJsonDocument::fromJson(QByteArray::fromStdString(testsupport::readText(path))).object();
}

Bytes readFile(const std::string& path)
{
    const std::string content = testsupport::readText(path);
    return Bytes(content.begin(), content.end());
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
    return std::filesystem::exists(path, ignored);
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
    if (value.isString()) {
        return value.toString().toStdString();
    }
    if (value.isDouble()) {
        return std::to_string(integer(value));
    }
    if (value.isBool()) {
        return value.toBool() ? "true" : "false";
    }
    return value.isObject() ? QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact).toStdString() : "null";
}

std::int64_t integer(const QJsonValue& value)
{
    return static_cast<std::int64_t>(value.toDouble(-1));
}

}  // namespace boardtest
