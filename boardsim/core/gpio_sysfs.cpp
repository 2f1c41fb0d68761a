// SPDX-License-Identifier: MIT
#include "gpio_sysfs.h"

#include "sys_io.h"

#include <cerrno>
#include <climits>
#include <cstring>

namespace boardsim {
namespace {

const char* const kEdgeWords[] = {"none", "rising", "falling", "both"};
const char* const kAttributeNames[] = {"value", "direction", "active_low", "edge"};

bool edgeFires(std::uint8_t edge, int logicalBefore, int logicalAfter)
{
    if (logicalBefore == logicalAfter) {
        return false;
    }
    const bool rising = logicalAfter != 0;
    return edge == kEdgeBoth || (edge == kEdgeRising && rising) || (edge == kEdgeFalling && !rising);
}

}  // namespace

int parseKernelLong(const char* data, std::size_t length, long& value)
{
    std::string text(data, length);
    if (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    std::size_t position = 0;
    bool negative = false;
    if (position < text.size() && (text[position] == '+' || text[position] == '-')) {
        negative = text[position] == '-';
        ++position;
    }
    unsigned base = 10;
    if (text.compare(position, 2, "0x") == 0 || text.compare(position, 2, "0X") == 0) {
        base = 16;
        position += 2;
    } else if (position + 1 < text.size() && text[position] == '0') {
        base = 8;
        ++position;
    }
    if (position >= text.size()) {
        return EINVAL;
    }
    unsigned long long magnitude = 0;
    for (; position < text.size(); ++position) {
        const char c = text[position];
        unsigned digit = 0;
        if (c >= '0' && c <= '9') {
            digit = static_cast<unsigned>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            digit = static_cast<unsigned>(c - 'a' + 10);
        } else if (c >= 'A' && c <= 'F') {
            digit = static_cast<unsigned>(c - 'A' + 10);
        } else {
            return EINVAL;
        }
        if (digit >= base) {
            return EINVAL;
        }
        magnitude = magnitude * base + digit;
        if (magnitude > static_cast<unsigned long long>(LONG_MAX) + 1ULL) {
            return ERANGE;
        }
    }
    if (!negative && magnitude > static_cast<unsigned long long>(LONG_MAX)) {
        return ERANGE;
    }
    value = negative ? static_cast<long>(0ULL - magnitude) : static_cast<long>(magnitude);
    return 0;
}

bool sysfsEquals(const char* data, std::size_t length, const char* word)
{
    const std::size_t wordLength = std::strlen(word);
    if (length > 0 && data[length - 1] == '\n') {
        --length;
    }
    return length == wordLength && std::memcmp(data, word, length) == 0;
}

GpioSysfs::GpioSysfs(Board& board) : m_board(board), m_lines(board.run().lines) {}

const char* GpioSysfs::attributeName(GpioAttribute attribute)
{
    return kAttributeNames[static_cast<int>(attribute)];
}

int GpioSysfs::level(int line) const
{
    const GpioLine& state = m_lines[line];
    return state.output != 0 ? state.outputLevel : state.externalLevel;
}

std::string GpioSysfs::treePath() const
{
    return std::string(m_board.config().stateDir) + "/gpio";
}

std::string GpioSysfs::backingPath(int line, const char* name) const
{
    std::string path = treePath() + "/gpio" + std::to_string(line);
    if (name != nullptr) {
        path += '/';
        path += name;
    }
    return path;
}

std::string GpioSysfs::show(int line, GpioAttribute attribute) const
{
    const GpioLine& state = m_lines[line];
    switch (attribute) {
    case GpioAttribute::kValue:
        return (level(line) ^ state.activeLow) != 0 ? "1\n" : "0\n";
    case GpioAttribute::kDirection:
        return state.output != 0 ? "out\n" : "in\n";
    case GpioAttribute::kActiveLow:
        return state.activeLow != 0 ? "1\n" : "0\n";
    case GpioAttribute::kEdge:
        return std::string(kEdgeWords[state.edge & 3]) + "\n";
    }
    return std::string();
}

void GpioSysfs::mirror(int line)
{
    for (int attribute = 0; attribute < 4; ++attribute) {
        const std::string text = show(line, static_cast<GpioAttribute>(attribute));
        sys::replaceContent(backingPath(line, kAttributeNames[attribute]).c_str(), text.data(), text.size());
    }
}

void GpioSysfs::noteLevel(int line, int before, bool becameOutput)
{
    const int after = level(line);
    if (after == before && !becameOutput) {
        return;
    }
    const std::int64_t now = m_board.now();
    m_board.addLevelChange(now, line, after);
    Trace& trace = m_board.trace();
    if (trace.enabled()) {
        JsonWriter event = Trace::event(now, "gpio_level");
        event.number("line", line).number("value", after).string("direction", m_lines[line].output != 0 ? "out" : "in");
        trace.emit(event);
    }
}

int GpioSysfs::writeExport(const char* data, std::size_t length)
{
    long number = 0;
    if (const int error = parseKernelLong(data, length, number)) {
        return error;
    }
    if (number < 0 || number >= kGpioLines) {
        return EINVAL;
    }
    const int line = static_cast<int>(number);
    const int refused = m_board.config().faults.exportRefused[line];
    if (refused != 0) {
        return refused;
    }
    GpioLine& state = m_lines[line];
    if (state.exported != 0) {
        return EBUSY;
    }
    const std::string folder = backingPath(line, nullptr);
    if (sys::makeFolder(folder.c_str(), 0755) != 0 && errno != EEXIST) {
        return EIO;
    }
    for (const char* name : kAttributeNames) {
        const int fd = sys::openFile(backingPath(line, name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            return EIO;
        }
        sys::closeFile(fd);
    }
    // The hardware keeps its direction and level; the per-request flags
    // start afresh.
    state.exported = 1;
    state.activeLow = 0;
    state.edge = kEdgeNone;
    ++state.generation;
    mirror(line);
    m_board.addLevelChange(m_board.now(), line, level(line));
    return 0;
}

int GpioSysfs::writeUnexport(const char* data, std::size_t length)
{
    long number = 0;
    if (const int error = parseKernelLong(data, length, number)) {
        return error;
    }
    if (number < 0 || number >= kGpioLines || m_lines[number].exported == 0) {
        return EINVAL;
    }
    const int line = static_cast<int>(number);
    GpioLine& state = m_lines[line];
    state.exported = 0;
    state.activeLow = 0;
    state.edge = kEdgeNone;
    ++state.generation;
    for (const char* name : kAttributeNames) {
        sys::removeFile(backingPath(line, name).c_str());
    }
    sys::removeFolder(backingPath(line, nullptr).c_str());
    return 0;
}

int GpioSysfs::writeAttribute(int line, GpioAttribute attribute, const char* data, std::size_t length)
{
    GpioLine& state = m_lines[line];
    const int before = level(line);
    switch (attribute) {
    case GpioAttribute::kValue: {
        if (state.output == 0) {
            return EPERM;
        }
        long value = 0;
        if (const int error = parseKernelLong(data, length, value)) {
            return error;
        }
        state.outputLevel = static_cast<std::uint8_t>((value != 0 ? 1 : 0) ^ state.activeLow);
        mirror(line);
        noteLevel(line, before, false);
        return 0;
    }
    case GpioAttribute::kDirection: {
        const bool high = sysfsEquals(data, length, "high");
        const bool low = sysfsEquals(data, length, "out") || sysfsEquals(data, length, "low");
        if (high || low) {
            // A line whose edge is armed is an interrupt source: it cannot be
            // turned into an output.
            if (state.edge != kEdgeNone) {
                return EIO;
            }
            const bool wasOutput = state.output != 0;
            state.output = 1;
            state.outputLevel = high ? 1 : 0;
            mirror(line);
            noteLevel(line, before, !wasOutput);
            return 0;
        }
        if (sysfsEquals(data, length, "in")) {
            state.output = 0;
            mirror(line);
            noteLevel(line, before, false);
            return 0;
        }
        return EINVAL;
    }
    case GpioAttribute::kActiveLow: {
        long value = 0;
        if (const int error = parseKernelLong(data, length, value)) {
            return error;
        }
        state.activeLow = value != 0 ? 1 : 0;
        mirror(line);
        return 0;
    }
    case GpioAttribute::kEdge:
        for (std::uint8_t edge = 0; edge < 4; ++edge) {
            if (sysfsEquals(data, length, kEdgeWords[edge])) {
                if (edge != kEdgeNone && state.output != 0) {
                    return EIO;
                }
                state.edge = edge;
                mirror(line);
                return 0;
            }
        }
        return EINVAL;
    }
    return EINVAL;
}

void GpioSysfs::applyEdge(const EdgeEvent& edge)
{
    if (!exists(edge.line)) {
        return;
    }
    GpioLine& state = m_lines[edge.line];
    const int before = level(edge.line);
    const int logicalBefore = before ^ state.activeLow;
    state.externalLevel = edge.level;
    const int after = level(edge.line);
    bool notified = false;
    if (state.exported != 0 && after != before) {
        if (edgeFires(state.edge, logicalBefore, after ^ state.activeLow)) {
            ++state.notifyCount;
            notified = true;
        }
        mirror(edge.line);
        m_board.addLevelChange(m_board.now(), edge.line, after);
    }
    Trace& trace = m_board.trace();
    if (trace.enabled()) {
        JsonWriter event = Trace::event(m_board.now(), "gpio_edge");
        event.number("line", edge.line).number("value", edge.level).boolean("notified", notified);
        trace.emit(event);
    }
}

}  // namespace boardsim
