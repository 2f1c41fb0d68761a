// SPDX-License-Identifier: MIT
#include "summary.h"

#include "json_writer.h"

#include <cstdio>
#include <map>
#include <vector>

namespace boardsim {
namespace {

const char* timingName(const RunBlock& run)
{
    return run.config.useMaxTiming != 0 ? "max" : "typ";
}

}  // namespace

std::string summaryJson(const RunBlock& run, int status)
{
    const Counters& counters = run.counters;
    JsonWriter json;
    json.beginObject()
        .number("status", status)
        .string("profile", run.config.profile.name)
        .string("chip", run.config.profile.chip)
        .string("timing", timingName(run))
        .number("board_time_ns", run.clockNs);
    json.beginObject("spi")
        .unsignedNumber("opens", counters.spiOpens)
        .unsignedNumber("messages", counters.messages)
        .unsignedNumber("bytes", counters.bytes)
        .unsignedNumber("status_polls", counters.statusPolls)
        .unsignedNumber("failed", counters.failed)
        .endObject();
    const std::uint64_t erases =
        counters.chipErases + counters.block32Erases + counters.block64Erases + counters.sectorErases;
    json.beginObject("flash")
        .unsignedNumber("programmed_pages", counters.programmedPages)
        .unsignedNumber("erases", erases)
        .unsignedNumber("chip_erases", counters.chipErases)
        .unsignedNumber("block_erases", counters.block32Erases + counters.block64Erases)
        .unsignedNumber("sector_erases", counters.sectorErases)
        .unsignedNumber("reads", counters.reads)
        .endObject();

    std::map<int, std::vector<const LevelChange*>> byLine;
    for (std::uint32_t i = 0; i < run.historyCount && i < static_cast<std::uint32_t>(kMaxHistory); ++i) {
        byLine[run.history[i].line].push_back(&run.history[i]);
    }
    json.beginObject("gpio").beginObject("lines");
    for (const auto& entry : byLine) {
        const std::string key = std::to_string(entry.first);
        json.beginArray(key.c_str());
        for (const LevelChange* change : entry.second) {
            json.beginArray().number(nullptr, change->timeNs).number(nullptr, change->level).endArray();
        }
        json.endArray();
    }
    json.endObject().beginArray("exported");
    for (int line = 0; line < kGpioLines; ++line) {
        if (run.lines[line].exported != 0) {
            json.number(nullptr, line);
        }
    }
    json.endArray().unsignedNumber("dropped", run.historyDropped).endObject();

    json.beginObject("melody")
        .unsignedNumber("opens", counters.melodyOpens)
        .unsignedNumber("requests", counters.melodyRequests)
        .unsignedNumber("failed", counters.melodyFailed)
        .boolean("on", run.soundOn != 0)
        .beginArray("timeline");
    for (std::uint32_t i = 0; i < run.soundCount && i < static_cast<std::uint32_t>(kMaxSoundEvents); ++i) {
        const SoundEvent& sound = run.sounds[i];
        json.beginArray()
            .number(nullptr, sound.timeNs)
            .string(nullptr, sound.on != 0 ? "on" : "off")
            .unsignedNumber(nullptr, sound.type)
            .endArray();
    }
    json.endArray().endObject();

    json.unsignedNumber("processes", counters.processes);
    json.beginArray("violations");
    for (std::uint32_t i = 0; i < run.violationCount && i < static_cast<std::uint32_t>(kMaxViolations); ++i) {
        const Violation& violation = run.violations[i];
        json.beginObject()
            .string("rule", violationRuleName(violation.rule))
            .string("detail", violation.detail)
            .number("t", violation.timeNs)
            .endObject();
    }
    json.endArray().unsignedNumber("violations_total", run.violationsTotal).endObject();
    return json.text() + "\n";
}

std::string summaryText(const RunBlock& run)
{
    const Counters& counters = run.counters;
    char buffer[512];
    std::string text;
    std::snprintf(buffer, sizeof buffer, "boardsim: board time %lld.%06lld s (profile %s, %s, %s)\n",
                  static_cast<long long>(run.clockNs / 1000000000LL),
                  static_cast<long long>(run.clockNs % 1000000000LL / 1000), run.config.profile.name,
                  run.config.profile.chip, timingName(run));
    text += buffer;
    std::snprintf(buffer, sizeof buffer, "boardsim: spi %llu messages, %llu bytes, %llu status polls, %llu failed\n",
                  static_cast<unsigned long long>(counters.messages), static_cast<unsigned long long>(counters.bytes),
                  static_cast<unsigned long long>(counters.statusPolls),
                  static_cast<unsigned long long>(counters.failed));
    text += buffer;
    if (run.violationsTotal == 0) {
        text += "boardsim: violations: none\n";
        return text;
    }
    std::map<std::string, std::uint64_t> byRule;
    for (std::uint32_t i = 0; i < run.violationCount && i < static_cast<std::uint32_t>(kMaxViolations); ++i) {
        ++byRule[violationRuleName(run.violations[i].rule)];
    }
    std::snprintf(buffer, sizeof buffer, "boardsim: violations: %llu",
                  static_cast<unsigned long long>(run.violationsTotal));
    text += buffer;
    const char* separator = " (";
    for (const auto& entry : byRule) {
        text += separator + entry.first + " " + std::to_string(entry.second);
        separator = ", ";
    }
    text += run.violationsTotal > run.violationCount ? ", ... )\n" : ")\n";
    if (run.violationCount > 0) {
        text += std::string("boardsim: first violation: ") + violationRuleName(run.violations[0].rule) + ": " +
                run.violations[0].detail + "\n";
    }
    return text;
}

}  // namespace boardsim
