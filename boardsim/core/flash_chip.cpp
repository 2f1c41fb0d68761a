// SPDX-License-Identifier: MIT
#include "flash_chip.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace boardsim {
namespace {

constexpr std::uint8_t kReadStatus = 0x05;
constexpr std::uint8_t kWriteEnable = 0x06;
constexpr std::uint8_t kWriteDisable = 0x04;
constexpr std::uint8_t kPageProgram = 0x02;
constexpr std::uint8_t kReadData = 0x03;
constexpr std::uint8_t kFastRead = 0x0B;
constexpr std::uint8_t kSectorErase = 0x20;
constexpr std::uint8_t kBlockErase32 = 0x52;
constexpr std::uint8_t kBlockErase64 = 0xD8;
constexpr std::uint8_t kChipErase = 0xC7;
constexpr std::uint8_t kChipErase2 = 0x60;
constexpr std::uint8_t kJedecId = 0x9F;
constexpr std::uint8_t kManufacturerDeviceId = 0x90;
constexpr std::uint8_t kReleasePowerDownId = 0xAB;

constexpr std::uint8_t kStatusBusy = 0x01;
constexpr std::uint8_t kStatusLatch = 0x02;
// What the controller reads while the chip does not drive its output.
constexpr std::uint8_t kUndriven = 0xFF;

constexpr std::uint8_t kIgnoredBusy = 1;
constexpr std::uint8_t kNotDecoded = 2;

constexpr std::uint32_t kSectorSize = 4096;
constexpr std::uint32_t kBlock32Size = 32 * 1024;
constexpr std::uint32_t kBlock64Size = 64 * 1024;

// Bytes between the opcode and the data phase: address, then dummy bytes.
struct Layout {
    std::uint32_t addressBytes;
    std::uint32_t dummyBytes;
};

Layout layoutOf(std::uint8_t opcode)
{
    switch (opcode) {
    case kReadData:
    case kPageProgram:
    case kSectorErase:
    case kBlockErase32:
    case kBlockErase64:
    case kManufacturerDeviceId:
    case kReleasePowerDownId:
        return {3, 0};
    case kFastRead:
        return {3, 1};
    default:
        return {0, 0};
    }
}

bool hasAddress(std::uint8_t opcode)
{
    return layoutOf(opcode).addressBytes > 0 && opcode != kReleasePowerDownId;
}

}  // namespace

const char* flashCommandName(std::uint8_t opcode)
{
    switch (opcode) {
    case kReadStatus:
        return "RDSR";
    case kWriteEnable:
        return "WREN";
    case kWriteDisable:
        return "WRDI";
    case kPageProgram:
        return "PP";
    case kReadData:
        return "READ";
    case kFastRead:
        return "FAST_READ";
    case kSectorErase:
        return "SE";
    case kBlockErase32:
        return "BE32";
    case kBlockErase64:
        return "BE64";
    case kChipErase:
    case kChipErase2:
        return "CE";
    case kJedecId:
        return "RDID";
    case kManufacturerDeviceId:
        return "REMS";
    case kReleasePowerDownId:
        return "RES";
    default:
        return "UNKNOWN";
    }
}

FlashChip::FlashChip(Board& board) : m_board(board), m_chip(board.run().chip) {}

bool FlashChip::selected() const
{
    return m_chip.selected != 0;
}

bool FlashChip::busy(std::int64_t timeNs) const
{
    return m_board.config().faults.busy != 0 || (m_chip.operationPending != 0 && timeNs < m_chip.busyUntilNs);
}

void FlashChip::settle(std::int64_t timeNs)
{
    // A finished program or erase clears busy and the latch together.
    if (m_chip.operationPending != 0 && timeNs >= m_chip.busyUntilNs && m_board.config().faults.busy == 0) {
        m_chip.operationPending = 0;
        m_chip.writeEnabled = 0;
    }
}

std::uint8_t FlashChip::status(std::int64_t timeNs)
{
    settle(timeNs);
    return static_cast<std::uint8_t>((busy(timeNs) ? kStatusBusy : 0) | (m_chip.writeEnabled != 0 ? kStatusLatch : 0));
}

void FlashChip::select(std::int64_t timeNs)
{
    settle(timeNs);
    m_chip.selected = 1;
    m_chip.opcode = 0;
    m_chip.ignored = 0;
    m_chip.firstStatus = 0;
    m_chip.count = 0;
    m_chip.address = 0;
    m_chip.dataBytes = 0;
}

void FlashChip::startCommand(std::uint8_t opcode, std::int64_t timeNs)
{
    m_chip.opcode = opcode;
    if (opcode != kReadStatus && busy(timeNs)) {
        m_chip.ignored = kIgnoredBusy;
    }
    if (opcode == kPageProgram) {
        std::memset(m_chip.pageMask, 0, sizeof m_chip.pageMask);
    }
}

void FlashChip::shift(const std::uint8_t* tx, std::uint8_t* rx, std::uint32_t len, std::int64_t timeNs, bool decodable)
{
    settle(timeNs);
    if (!decodable && m_chip.ignored == 0) {
        m_chip.ignored = kNotDecoded;
    }
    std::uint32_t i = 0;
    while (i < len) {
        if (m_chip.ignored != 0) {
            if (rx != nullptr) {
                std::memset(rx + i, kUndriven, len - i);
            }
            m_chip.count += len - i;
            return;
        }
        const std::uint8_t mosi = tx != nullptr ? tx[i] : 0;
        const Layout layout = layoutOf(m_chip.opcode);
        const std::uint32_t header = 1 + layout.addressBytes + layout.dummyBytes;
        if (m_chip.count < header) {
            if (m_chip.count == 0) {
                startCommand(mosi, timeNs);
            } else if (m_chip.count <= layout.addressBytes) {
                m_chip.address = ((m_chip.address << 8) | mosi) & 0xFFFFFF;
            }
            if (rx != nullptr) {
                rx[i] = kUndriven;
            }
            ++m_chip.count;
            ++i;
            continue;
        }
        const std::uint32_t rest = len - i;
        dataPhase(tx != nullptr ? tx + i : nullptr, rx != nullptr ? rx + i : nullptr, rest, timeNs);
        m_chip.count += rest;
        m_chip.dataBytes += rest;
        return;
    }
}

void FlashChip::dataPhase(const std::uint8_t* tx, std::uint8_t* rx, std::uint32_t len, std::int64_t timeNs)
{
    const ChipProfile& profile = m_board.profile();
    switch (m_chip.opcode) {
    case kReadStatus: {
        const std::uint8_t value = status(timeNs);
        if (m_chip.dataBytes == 0) {
            m_chip.firstStatus = value;
        }
        if (rx != nullptr) {
            std::memset(rx, value, len);
        }
        return;
    }
    case kReadData:
    case kFastRead:
        if (rx != nullptr) {
            readData(rx, len);
        }
        return;
    case kPageProgram: {
        // The page buffer takes the bytes at the address's column onwards and
        // wraps inside the page, so later bytes replace earlier ones.
        const std::uint32_t page = profile.pageSize;
        std::uint32_t column = (m_chip.address + m_chip.dataBytes) % page;
        for (std::uint32_t k = 0; k < len; ++k) {
            m_chip.page[column] = tx != nullptr ? tx[k] : 0;
            m_chip.pageMask[column] = 1;
            column = column + 1 == page ? 0 : column + 1;
        }
        break;
    }
    case kJedecId:
        if (rx != nullptr) {
            for (std::uint32_t k = 0; k < len; ++k) {
                const std::uint32_t index = m_chip.dataBytes + k;
                rx[k] = index < 3 ? profile.jedecId[index] : kUndriven;
            }
        }
        return;
    case kManufacturerDeviceId:
        if (rx != nullptr) {
            // Address bit 0 chooses which of the two bytes comes first.
            const std::uint8_t pair[2] = {profile.jedecId[0], profile.deviceId};
            for (std::uint32_t k = 0; k < len; ++k) {
                rx[k] = pair[(m_chip.dataBytes + k + (m_chip.address & 1)) % 2];
            }
        }
        return;
    case kReleasePowerDownId:
        if (rx != nullptr) {
            std::memset(rx, profile.deviceId, len);
        }
        return;
    default:
        break;
    }
    if (rx != nullptr) {
        std::memset(rx, kUndriven, len);
    }
}

void FlashChip::readData(std::uint8_t* rx, std::uint32_t len)
{
    const std::uint32_t capacity = m_board.profile().capacity;
    const std::uint32_t start = (m_chip.address + m_chip.dataBytes) % capacity;
    const std::uint8_t* flash = m_board.flash();
    // Continuous read: past the last byte the chip goes on at address 0.
    std::uint32_t done = 0;
    std::uint32_t address = start;
    while (done < len) {
        const std::uint32_t chunk = std::min(len - done, capacity - address);
        std::memcpy(rx + done, flash + address, chunk);
        done += chunk;
        address = 0;
    }
    const Faults& faults = m_board.config().faults;
    for (std::uint32_t f = 0; f < faults.flipCount; ++f) {
        const FlipFault& flip = faults.flips[f];
        // A flip bound to one message models a transient read error: the
        // same byte read again later comes back right.
        if (flip.address >= capacity ||
            (flip.onlyMessage != 0 && flip.onlyMessage != m_board.run().counters.ioctlMessages)) {
            continue;
        }
        for (std::uint64_t offset = (flip.address + capacity - start) % capacity; offset < len; offset += capacity) {
            rx[offset] ^= flip.mask;
        }
    }
}

void FlashChip::startBusy(std::int64_t timeNs, const std::int64_t* durations)
{
    m_chip.operationPending = 1;
    m_chip.busyUntilNs = timeNs + durations[m_board.config().useMaxTiming != 0 ? 1 : 0];
}

const char* FlashChip::program(std::int64_t timeNs)
{
    const ChipProfile& profile = m_board.profile();
    const std::uint32_t page = profile.pageSize;
    const std::uint32_t base = (m_chip.address % profile.capacity) / page * page;
    std::uint8_t* flash = m_board.flash();
    std::uint32_t raised = 0;
    std::uint32_t firstRaised = 0;
    std::uint8_t storedThere = 0;
    std::uint8_t sentThere = 0;
    for (std::uint32_t column = 0; column < page; ++column) {
        if (m_chip.pageMask[column] == 0) {
            continue;
        }
        std::uint8_t& cell = flash[base + column];
        const std::uint8_t data = m_chip.page[column];
        if ((data & static_cast<std::uint8_t>(~cell)) != 0) {
            if (raised == 0) {
                firstRaised = base + column;
                storedThere = cell;
                sentThere = data;
            }
            ++raised;
        }
        // Programming can only clear bits.
        cell = static_cast<std::uint8_t>(cell & data);
    }
    if (raised != 0) {
        char detail[120];
        std::snprintf(detail, sizeof detail,
                      "page program at 0x%06X asks %u bytes to turn 0 bits to 1, first at 0x%06X (stored 0x%02X, "
                      "sent 0x%02X)",
                      m_chip.address, raised, firstRaised, storedThere, sentThere);
        m_board.addViolation(timeNs, kZeroToOne, detail);
    }
    startBusy(timeNs, profile.pageProgramNs);
    ++m_board.run().counters.programmedPages;
    return "programmed";
}

const char* FlashChip::erase(std::uint8_t opcode, std::int64_t timeNs)
{
    const ChipProfile& profile = m_board.profile();
    std::uint32_t size = profile.capacity;
    const std::int64_t* durations = profile.chipEraseNs;
    Counters& counters = m_board.run().counters;
    if (opcode == kSectorErase) {
        size = kSectorSize;
        durations = profile.sectorEraseNs;
        ++counters.sectorErases;
    } else if (opcode == kBlockErase32) {
        size = kBlock32Size;
        durations = profile.block32EraseNs;
        ++counters.block32Erases;
    } else if (opcode == kBlockErase64) {
        size = kBlock64Size;
        durations = profile.block64EraseNs;
        ++counters.block64Erases;
    } else {
        ++counters.chipErases;
    }
    const std::uint32_t start = size == profile.capacity ? 0 : (m_chip.address % profile.capacity) / size * size;
    std::memset(m_board.flash() + start, 0xFF, size);
    startBusy(timeNs, durations);
    return "erased";
}

void FlashChip::deselect(std::int64_t timeNs)
{
    if (m_chip.selected == 0) {
        return;
    }
    m_chip.selected = 0;
    settle(timeNs);
    if (m_chip.count == 0) {
        return;
    }
    const std::uint8_t opcode = m_chip.opcode;
    if (m_chip.ignored == kNotDecoded) {
        traceCommand(timeNs, "not-decoded");
        return;
    }
    if (m_chip.ignored == kIgnoredBusy) {
        char detail[120];
        std::snprintf(detail, sizeof detail, "%s (0x%02X) sent while the flash is busy", flashCommandName(opcode),
                      opcode);
        traceCommand(timeNs, "ignored-busy");
        m_board.addViolation(timeNs, kBusyCommand, detail);
        return;
    }
    const char* effect = execute(opcode, timeNs);
    if (effect != nullptr) {
        traceCommand(timeNs, effect);
    }
}

// The command ends with chip select going high. Returns its effect for the
// trace, or nullptr when it was refused and already reported.
const char* FlashChip::execute(std::uint8_t opcode, std::int64_t timeNs)
{
    const Layout layout = layoutOf(opcode);
    const std::uint32_t header = 1 + layout.addressBytes + layout.dummyBytes;
    switch (opcode) {
    case kReadStatus:
        ++m_board.run().counters.statusPolls;
        return "status";
    case kWriteEnable:
    case kWriteDisable:
        // Executed only when chip select goes high right after the opcode.
        if (m_chip.count != 1) {
            return "incomplete";
        }
        m_chip.writeEnabled = opcode == kWriteEnable ? 1 : 0;
        return opcode == kWriteEnable ? "latched" : "unlatched";
    case kReadData:
    case kFastRead:
        if (m_chip.dataBytes > 0) {
            ++m_board.run().counters.reads;
        }
        return m_chip.count >= header ? "read" : "incomplete";
    case kPageProgram:
    case kSectorErase:
    case kBlockErase32:
    case kBlockErase64:
    case kChipErase:
    case kChipErase2: {
        // A program needs at least one data byte; an erase must end right
        // after its last address byte (or its opcode).
        const bool complete = opcode == kPageProgram ? m_chip.count > header : m_chip.count == header;
        if (!complete) {
            return "incomplete";
        }
        if (m_chip.writeEnabled == 0) {
            reportNoLatch(opcode, timeNs);
            return nullptr;
        }
        return opcode == kPageProgram ? program(timeNs) : erase(opcode, timeNs);
    }
    case kJedecId:
    case kManufacturerDeviceId:
    case kReleasePowerDownId:
        return "id";
    default:
        return "unsupported";
    }
}

void FlashChip::reportNoLatch(std::uint8_t opcode, std::int64_t timeNs)
{
    char detail[120];
    if (hasAddress(opcode)) {
        std::snprintf(detail, sizeof detail, "%s at 0x%06X without Write Enable", flashCommandName(opcode),
                      m_chip.address);
    } else {
        std::snprintf(detail, sizeof detail, "%s without Write Enable", flashCommandName(opcode));
    }
    traceCommand(timeNs, "no-latch");
    m_board.addViolation(timeNs, kNoLatch, detail);
}

void FlashChip::traceCommand(std::int64_t timeNs, const char* effect)
{
    Trace& trace = m_board.trace();
    if (!trace.enabled()) {
        return;
    }
    const std::uint8_t opcode = m_chip.opcode;
    JsonWriter event = Trace::event(timeNs, "flash_cmd");
    event.number("op", opcode).string("name", flashCommandName(opcode));
    if (hasAddress(opcode) && m_chip.count > 3) {
        event.number("addr", m_chip.address);
    }
    event.number("len", m_chip.dataBytes).string("effect", effect);
    if (opcode == kReadStatus && m_chip.ignored == 0 && m_chip.dataBytes > 0) {
        event.number("status", m_chip.firstStatus);
    }
    m_board.trace().emit(event);
}

}  // namespace boardsim
