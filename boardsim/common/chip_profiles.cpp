// SPDX-License-Identifier: MIT
#include "chip_profiles.h"

#include <cstring>

namespace boardsim {
namespace {

constexpr std::int64_t kMs = 1000000;
constexpr std::int64_t kS = 1000 * kMs;

// Winbond W25Q16JV (-IQ/-JQ): 16 Mbit, JEDEC id EF 40 15, 0x90 and 0xAB
// answer device id 0x14. Times are the datasheet's typical and maximum values.
constexpr ChipProfile kW25q16jv = {
    "default",
    "W25Q16JV",
    2 * 1024 * 1024,
    256,
    {0xEF, 0x40, 0x15},
    0x14,
    {400000, 3 * kMs},        // page program 0.4 / 3 ms
    {45 * kMs, 400 * kMs},    // 4 KiB sector erase
    {120 * kMs, 1600 * kMs},  // 32 KiB block erase
    {150 * kMs, 2000 * kMs},  // 64 KiB block erase
    {5 * kS, 25 * kS},        // chip erase
};

// base under another profile name, with another chip erase time.
constexpr ChipProfile withChipErase(ChipProfile base, const char* name, std::int64_t chipEraseNs)
{
    bool ended = false;
    for (char& letter : base.name) {
        ended = ended || *name == '\0';
        letter = ended ? '\0' : *name++;
    }
    base.chipEraseNs[0] = chipEraseNs;
    base.chipEraseNs[1] = chipEraseNs;
    return base;
}

// The same part with a chip erase that outlasts the tool's ten readiness
// waits (10 x (3125 polls + 1 s sleep), about 10.7 s of board time).
constexpr ChipProfile kSlowErase = withChipErase(kW25q16jv, "slow-erase", 40 * kS);

constexpr const ChipProfile* kProfiles[] = {&kW25q16jv, &kSlowErase};

}  // namespace

const ChipProfile* findChipProfile(const std::string& name)
{
    for (const ChipProfile* profile : kProfiles) {
        if (name == profile->name) {
            return profile;
        }
    }
    return nullptr;
}

std::vector<std::string> chipProfileNames()
{
    std::vector<std::string> names;
    for (const ChipProfile* profile : kProfiles) {
        names.emplace_back(profile->name);
    }
    return names;
}

const char* violationRuleName(std::uint8_t rule)
{
    switch (rule) {
    case kNoLatch:
        return "no-latch";
    case kZeroToOne:
        return "zero-to-one";
    case kBusyCommand:
        return "busy-command";
    case kGpio48NotLow:
        return "gpio48-not-low";
    default:
        return "unknown";
    }
}

}  // namespace boardsim
