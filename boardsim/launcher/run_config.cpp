// SPDX-License-Identifier: MIT
#include "run_config.h"

#include "signal_injection.h"

#include "chip_profiles.h"
#include "errno_names.h"
#include "path_text.h"
#include "state_folder.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace boardsim {
namespace {

const char* const kSetupNames[kSetupRequestCount] = {"WR_MODE",          "RD_MODE",         "WR_BITS_PER_WORD",
                                                     "RD_BITS_PER_WORD", "WR_MAX_SPEED_HZ", "RD_MAX_SPEED_HZ"};

std::vector<std::string> splitColons(const std::string& text)
{
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t colon = text.find(':', start);
        parts.push_back(text.substr(start, colon - start));
        if (colon == std::string::npos) {
            return parts;
        }
        start = colon + 1;
    }
}

// An unsigned number in C notation (decimal, 0x hex, 0 octal), whole text.
bool parseUnsigned(const std::string& text, unsigned long long limit, unsigned long long& value)
{
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    value = std::strtoull(text.c_str(), &end, 0);
    return errno == 0 && *end == '\0' && value <= limit;
}

bool copyPath(char* target, std::size_t capacity, const std::string& path, std::string& error)
{
    if (path.size() >= capacity) {
        error = "path too long: " + path;
        return false;
    }
    std::memcpy(target, path.c_str(), path.size() + 1);
    return true;
}

// Scripted lines sit at the opposite of their first edge until it comes.
void placeScriptedLines(RunBlock& block)
{
    bool placed[kGpioLines] = {};
    for (std::uint32_t i = 0; i < block.config.edgeCount; ++i) {
        const EdgeEvent& edge = block.config.edges[i];
        if (placed[edge.line]) {
            continue;
        }
        placed[edge.line] = true;
        GpioLine& line = block.lines[edge.line];
        line.externalLevel = edge.level != 0 ? 0 : 1;
        if (line.exported != 0 && line.output == 0) {
            const std::string path =
                std::string(block.config.stateDir) + "/gpio/gpio" + std::to_string(edge.line) + "/value";
            const int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
            if (fd >= 0) {
                const char* text = (line.externalLevel ^ line.activeLow) != 0 ? "1\n" : "0\n";
                if (write(fd, text, 2) != 2) {
                    // The library rewrites the file at the line's next change.
                }
                close(fd);
            }
        }
    }
}

}  // namespace

bool setUpRun(const Options& options, const std::string& stateDir, const std::vector<std::string>& faultList,
              RunBlock& block, std::string& error)
{
    if (!buildRunConfig(options, stateDir, faultList, block.config, error) ||
        !prepareStateFolder(stateDir, block.config.profile, error) || !loadGpioTree(stateDir, block.lines, error)) {
        return false;
    }
    placeScriptedLines(block);
    return true;
}

namespace {

// Each kind of fault checks its parts and adds itself to faults; the result
// is what is wrong with the parts, empty when the fault was added.
using Parts = std::vector<std::string>;

std::string unknownErrno(const std::string& name)
{
    return "unknown errno '" + name + "'";
}

std::string addMsgFault(const Parts& parts, Faults& faults)
{
    if (parts.size() != 3) {
        return "expected msg:N:ERRNO or msg:N+:ERRNO";
    }
    std::string number = parts[1];
    const bool andLater = !number.empty() && number.back() == '+';
    if (andLater) {
        number.pop_back();
    }
    unsigned long long index = 0;
    if (!parseUnsigned(number, ~0ULL, index) || index == 0) {
        return "N must be a message number from 1";
    }
    const int value = parseErrno(parts[2]);
    if (value == 0) {
        return unknownErrno(parts[2]);
    }
    if (faults.msgCount >= static_cast<std::uint32_t>(kMaxMsgFaults)) {
        return "too many msg faults";
    }
    faults.msg[faults.msgCount++] = MsgFault{index, value, static_cast<std::uint8_t>(andLater ? 1 : 0)};
    return std::string();
}

std::string addSetupFault(const Parts& parts, Faults& faults)
{
    if (parts.size() != 3) {
        return "expected setup:REQ:ERRNO";
    }
    const int value = parseErrno(parts[2]);
    if (value == 0) {
        return unknownErrno(parts[2]);
    }
    for (int request = 0; request < kSetupRequestCount; ++request) {
        if (parts[1] == kSetupNames[request]) {
            faults.setupError[request] = value;
            return std::string();
        }
    }
    return "REQ must be one of WR_MODE, RD_MODE, WR_BITS_PER_WORD, RD_BITS_PER_WORD, "
           "WR_MAX_SPEED_HZ, RD_MAX_SPEED_HZ";
}

std::string addFlipFault(const Parts& parts, Faults& faults)
{
    unsigned long long address = 0;
    unsigned long long mask = 0;
    unsigned long long onlyMessage = 0;
    if (parts.size() < 3 || parts.size() > 4 || !parseUnsigned(parts[1], 0xFFFFFFFFULL, address) ||
        !parseUnsigned(parts[2], 0xFFULL, mask) || mask == 0 ||
        (parts.size() == 4 && (!parseUnsigned(parts[3], ~0ULL, onlyMessage) || onlyMessage == 0))) {
        return "expected flip:ADDR:MASK[:N] with MASK 1 to 0xFF and N a message number from 1";
    }
    if (faults.flipCount >= static_cast<std::uint32_t>(kMaxFlips)) {
        return "too many flip faults";
    }
    faults.flips[faults.flipCount++] =
        FlipFault{static_cast<std::uint32_t>(address), static_cast<std::uint8_t>(mask), onlyMessage};
    return std::string();
}

std::string addExportRefusedFault(const Parts& parts, Faults& faults)
{
    unsigned long long line = 0;
    if (parts.size() < 2 || parts.size() > 3 || !parseUnsigned(parts[1], kGpioLines - 1, line)) {
        return "expected export-refused:LINE[:ERRNO] with LINE 0 to " + std::to_string(kGpioLines - 1);
    }
    int value = EBUSY;
    if (parts.size() == 3) {
        value = parseErrno(parts[2]);
        if (value == 0) {
            return unknownErrno(parts[2]);
        }
    }
    faults.exportRefused[line] = value;
    return std::string();
}

std::string addSwitchFault(const std::string& kind, const Parts& parts, Faults& faults)
{
    if (parts.size() != 1) {
        return "takes no arguments";
    }
    (kind == "no-spidev" ? faults.noSpidev : kind == "no-melody" ? faults.noMelody : faults.busy) = 1;
    return std::string();
}

}  // namespace

bool parseFault(const std::string& text, Faults& faults, std::string& error)
{
    const Parts parts = splitColons(text);
    const std::string& kind = parts[0];
    std::string why;
    if (kind == "msg") {
        why = addMsgFault(parts, faults);
    } else if (kind == "setup") {
        why = addSetupFault(parts, faults);
    } else if (kind == "no-spidev" || kind == "no-melody" || kind == "busy") {
        why = addSwitchFault(kind, parts, faults);
    } else if (kind == "flip") {
        why = addFlipFault(parts, faults);
    } else if (kind == "export-refused") {
        why = addExportRefusedFault(parts, faults);
    } else {
        why = "unknown fault kind '" + kind + "'";
    }
    if (why.empty()) {
        return true;
    }
    error = "bad fault '" + text + "': " + why;
    return false;
}

bool parseEdge(const std::string& text, EdgeEvent& event, std::string& error)
{
    auto bad = [&]() {
        error = "bad edge '" + text + "': expected LINE:rising|falling@SECONDS, e.g. 2:falling@1.5";
        return false;
    };
    const std::size_t colon = text.find(':');
    const std::size_t at = text.find('@');
    if (colon == std::string::npos || at == std::string::npos || at < colon) {
        return bad();
    }
    unsigned long long line = 0;
    if (!parseUnsigned(text.substr(0, colon), kGpioLines - 1, line)) {
        return bad();
    }
    const std::string kind = text.substr(colon + 1, at - colon - 1);
    if (kind != "rising" && kind != "falling") {
        return bad();
    }
    // Seconds as decimal text, converted exactly to nanoseconds.
    const std::string seconds = text.substr(at + 1);
    const std::size_t dot = seconds.find('.');
    const std::string whole = seconds.substr(0, dot);
    const std::string fraction = dot == std::string::npos ? "" : seconds.substr(dot + 1);
    if (whole.empty() || whole.size() > 9 || whole.find_first_not_of("0123456789") != std::string::npos ||
        fraction.size() > 9 || (dot != std::string::npos && fraction.empty())) {
        return bad();
    }
    const unsigned long long wholeValue = std::strtoull(whole.c_str(), nullptr, 10);
    std::int64_t nanoseconds = static_cast<std::int64_t>(wholeValue) * 1000000000LL;
    std::int64_t scale = 100000000LL;
    for (const char digit : fraction) {
        if (digit < '0' || digit > '9') {
            return bad();
        }
        nanoseconds += (digit - '0') * scale;
        scale /= 10;
    }
    event.timeNs = nanoseconds;
    event.line = static_cast<std::int32_t>(line);
    event.level = kind == "rising" ? 1 : 0;
    return true;
}

std::string absolutePath(const std::string& path)
{
    if (!path.empty() && path[0] == '/') {
        return normalisePath(path);
    }
    char buffer[kPathCapacity];
    if (getcwd(buffer, sizeof buffer) == nullptr) {
        return path;
    }
    return normalisePath(std::string(buffer) + "/" + path);
}

bool buildRunConfig(const Options& options, const std::string& stateDir, const std::vector<std::string>& faultList,
                    RunConfig& config, std::string& error)
{
    const ChipProfile* profile = findChipProfile(options.profile);
    if (profile == nullptr) {
        error = "unknown profile '" + options.profile + "'";
        return false;
    }
    config.profile = *profile;
    config.useMaxTiming = options.maxTiming ? 1 : 0;
    if (!copyPath(config.stateDir, sizeof config.stateDir, stateDir, error)) {
        return false;
    }
    if (!options.tracePath.empty() &&
        !copyPath(config.tracePath, sizeof config.tracePath, absolutePath(options.tracePath), error)) {
        return false;
    }

    std::vector<std::string> spidevPaths{"/dev/spidev0.0"};
    for (const std::string& path : options.spidevPaths) {
        spidevPaths.push_back(absolutePath(path));
    }
    if (spidevPaths.size() > static_cast<std::size_t>(kMaxSpidevPaths)) {
        error = "too many --spidev paths (at most " + std::to_string(kMaxSpidevPaths - 1) + ")";
        return false;
    }
    config.spidevCount = 0;
    for (const std::string& path : spidevPaths) {
        if (!copyPath(config.spidevPaths[config.spidevCount++], kDevicePathCapacity, path, error)) {
            return false;
        }
    }

    std::vector<std::string> faults = options.faults;
    faults.insert(faults.end(), faultList.begin(), faultList.end());
    for (const std::string& text : faults) {
        if (!parseFault(text, config.faults, error)) {
            return false;
        }
    }

    if (options.edges.size() > static_cast<std::size_t>(kMaxEdges)) {
        error = "too many --edge options (at most " + std::to_string(kMaxEdges) + ")";
        return false;
    }
    config.edgeCount = 0;
    for (const std::string& text : options.edges) {
        if (!parseEdge(text, config.edges[config.edgeCount], error)) {
            return false;
        }
        ++config.edgeCount;
    }
    // Stable, so edges at the same time keep the order they were given in.
    std::stable_sort(config.edges, config.edges + config.edgeCount,
                     [](const EdgeEvent& a, const EdgeEvent& b) { return a.timeNs < b.timeNs; });
    config.signalInjection = SignalInjection{0, 0};
    return options.signal.empty() || parseSignalInjection(options.signal, config.signalInjection, error);
}

}  // namespace boardsim
