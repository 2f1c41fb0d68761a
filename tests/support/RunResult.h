// SPDX-License-Identifier: MIT
#pragma once

// What a run on the board simulator left behind, and how tests read it: exit
// status, standard output and error, the tool's log file, the trace (one
// JSON object per line) and the summary. The one reader of traces.

#include <QJsonArray>
#include <QJsonObject>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace boardtest {

using Bytes = std::vector<std::uint8_t>;

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
    // The messages (text after "sec] - ") of the log records (file) whose
    // level ("" for any) and message start match, e.g.
    // logRecords("ERROR", "SPI message cannot be sent -> ").
    std::vector<std::string> logRecords(const std::string& level, const std::string& messageStart = "") const;
    std::int64_t boardTimeNs() const;
    int violationsTotal() const;
    // One text with everything useful for a failure message.
    std::string describe() const;

    // Fill trace and summary from the simulator's files.
    void readTrace(const std::string& path);
    void readSummary(const std::string& path);
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
