// SPDX-License-Identifier: MIT
#include "spi_bus.h"

#include "errno_names.h"

#include <linux/ioctl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

namespace boardsim {
namespace {

// Mode bits (linux/spi/spi.h).
constexpr std::uint32_t kCpha = 0x01;
constexpr std::uint32_t kCpol = 0x02;
constexpr std::uint32_t kCsHigh = 0x04;
constexpr std::uint32_t kLsbFirst = 0x08;
constexpr std::uint32_t kMultiLaneBits = 0x100 | 0x200 | 0x400 | 0x800 | 0x2000 | 0x4000;
// The bits spidev lets a program set; the rest give EINVAL at once.
constexpr std::uint32_t kSpidevModeMask = 0xFF | kMultiLaneBits | 0x10000;
// What this board's controller supports; multi-lane bits are dropped quietly
// by the SPI core, anything else is refused.
constexpr std::uint32_t kControllerModeBits = kCpha | kCpol | kCsHigh;

constexpr unsigned long kRequestRdMode = SPI_IOC_RD_MODE;
constexpr unsigned long kRequestWrMode = SPI_IOC_WR_MODE;
constexpr unsigned long kRequestRdLsbFirst = SPI_IOC_RD_LSB_FIRST;
constexpr unsigned long kRequestWrLsbFirst = SPI_IOC_WR_LSB_FIRST;
constexpr unsigned long kRequestRdBits = SPI_IOC_RD_BITS_PER_WORD;
constexpr unsigned long kRequestWrBits = SPI_IOC_WR_BITS_PER_WORD;
constexpr unsigned long kRequestRdSpeed = SPI_IOC_RD_MAX_SPEED_HZ;
constexpr unsigned long kRequestWrSpeed = SPI_IOC_WR_MAX_SPEED_HZ;
constexpr unsigned long kRequestRdMode32 = SPI_IOC_RD_MODE32;
constexpr unsigned long kRequestWrMode32 = SPI_IOC_WR_MODE32;

constexpr int kDspLine = 48;

std::uint32_t aligned(std::uint32_t length)
{
    return (length + SpiBus::kBounceAlignment - 1) / SpiBus::kBounceAlignment * SpiBus::kBounceAlignment;
}

const char* setupName(unsigned long request)
{
    switch (request) {
    case kRequestWrMode:
        return "WR_MODE";
    case kRequestRdMode:
        return "RD_MODE";
    case kRequestWrBits:
        return "WR_BITS_PER_WORD";
    case kRequestRdBits:
        return "RD_BITS_PER_WORD";
    case kRequestWrSpeed:
        return "WR_MAX_SPEED_HZ";
    case kRequestRdSpeed:
        return "RD_MAX_SPEED_HZ";
    case kRequestWrMode32:
        return "WR_MODE32";
    case kRequestRdMode32:
        return "RD_MODE32";
    case kRequestWrLsbFirst:
        return "WR_LSB_FIRST";
    case kRequestRdLsbFirst:
        return "RD_LSB_FIRST";
    default:
        return nullptr;
    }
}

class TraceHold {
public:
    explicit TraceHold(Trace& trace) : m_trace(trace) { m_trace.hold(); }
    ~TraceHold() { m_trace.release(); }
    TraceHold(const TraceHold&) = delete;
    TraceHold& operator=(const TraceHold&) = delete;

private:
    Trace& m_trace;
};

}  // namespace

SpiBus::SpiBus(Board& board, FlashChip& chip) : m_board(board), m_chip(chip) {}

int SpiBus::ioctl(int fd, unsigned long request, void* argument, int& err, bool& handled)
{
    handled = _IOC_TYPE(request) == SPI_IOC_MAGIC;
    if (!handled) {
        return -1;
    }
    if (setupName(request) != nullptr) {
        return setupRequest(fd, request, argument, err);
    }
    if (_IOC_NR(request) != _IOC_NR(SPI_IOC_MESSAGE(0)) || _IOC_DIR(request) != _IOC_WRITE) {
        err = ENOTTY;
        return -1;
    }
    Counters& counters = m_board.run().counters;
    const std::int64_t index = static_cast<std::int64_t>(++counters.ioctlMessages);
    injectSignal(index);
    const std::uint32_t size = _IOC_SIZE(request);
    if (size % sizeof(spi_ioc_transfer) != 0) {
        err = EINVAL;
        ++counters.messages;
        ++counters.failed;
        traceMessage(fd, nullptr, 0, "ioctl", index, -1, err, 0);
        return -1;
    }
    const unsigned count = size / sizeof(spi_ioc_transfer);
    if (count > 0 && argument == nullptr) {
        err = EFAULT;
        ++counters.messages;
        ++counters.failed;
        traceMessage(fd, nullptr, 0, "ioctl", index, -1, err, 0);
        return -1;
    }
    return message(fd, static_cast<const spi_ioc_transfer*>(argument), count, "ioctl", index, err);
}

namespace {

// Which of the six fault-able setup requests this is, or -1.
int faultSlot(unsigned long request)
{
    switch (request) {
    case kRequestWrMode:
        return boardsim::kWrMode;
    case kRequestRdMode:
        return boardsim::kRdMode;
    case kRequestWrBits:
        return kWrBitsPerWord;
    case kRequestRdBits:
        return kRdBitsPerWord;
    case kRequestWrSpeed:
        return kWrMaxSpeedHz;
    case kRequestRdSpeed:
        return kRdMaxSpeedHz;
    default:
        return -1;
    }
}

// The mode bits spidev keeps; EINVAL for bits it or the controller refuses.
int writeMode(SpidevState& device, std::uint32_t mode)
{
    if ((mode & ~kSpidevModeMask) != 0) {
        return EINVAL;
    }
    mode &= ~kMultiLaneBits;
    if ((mode & ~kControllerModeBits) != 0) {
        return EINVAL;
    }
    device.mode = mode;
    return 0;
}

// Serves one setup request on the device; value gets what was written or
// read back, for the trace. Returns the errno, 0 on success.
int applySetup(SpidevState& device, unsigned long request, void* argument, std::int64_t& value)
{
    auto* byte = static_cast<std::uint8_t*>(argument);
    auto* word = static_cast<std::uint32_t*>(argument);
    switch (request) {
    case kRequestRdMode:
        *byte = static_cast<std::uint8_t>(device.mode & kSpidevModeMask);
        value = *byte;
        return 0;
    case kRequestRdMode32:
        *word = device.mode & kSpidevModeMask;
        value = *word;
        return 0;
    case kRequestWrMode:
    case kRequestWrMode32: {
        const std::uint32_t mode = request == kRequestWrMode ? *byte : *word;
        value = mode;
        return writeMode(device, mode);
    }
    case kRequestRdLsbFirst:
        *byte = (device.mode & kLsbFirst) != 0 ? 1 : 0;
        value = *byte;
        return 0;
    case kRequestWrLsbFirst:
        value = *byte;
        // The controller cannot shift least significant bit first.
        return value != 0 ? EINVAL : 0;
    case kRequestRdBits:
        *byte = device.bitsPerWord;
        value = device.bitsPerWord;
        return 0;
    case kRequestWrBits:
        value = *byte;
        if (*byte > 32) {
            return EINVAL;
        }
        // The SPI core turns 0 into 8.
        device.bitsPerWord = *byte == 0 ? 8 : *byte;
        return 0;
    case kRequestRdSpeed:
        *word = device.speedHz;
        value = device.speedHz;
        return 0;
    case kRequestWrSpeed:
        value = *word;
        if (*word == 0) {
            return EINVAL;
        }
        // Kept as asked and read back as asked; transfers run at no more
        // than the controller's maximum.
        device.speedHz = *word;
        return 0;
    default:
        return ENOTTY;
    }
}

}  // namespace

int SpiBus::setupRequest(int fd, unsigned long request, void* argument, int& err)
{
    const int slot = faultSlot(request);
    const int faultError = slot >= 0 ? m_board.config().faults.setupError[slot] : 0;
    const bool writes = _IOC_DIR(request) == _IOC_WRITE;
    std::int64_t value = -1;  // for the trace: written, or read back
    if (argument == nullptr) {
        err = EFAULT;
    } else if (faultError != 0) {
        err = faultError;
        if (writes) {
            value = _IOC_SIZE(request) == 4 ? *static_cast<const std::uint32_t*>(argument)
                                            : *static_cast<const std::uint8_t*>(argument);
        }
    } else {
        err = applySetup(m_board.run().spidev, request, argument, value);
    }
    if (err != 0 && !writes) {
        value = -1;
    }
    const int result = err != 0 ? -1 : 0;
    Trace& trace = m_board.trace();
    if (trace.enabled()) {
        JsonWriter event = Trace::event(m_board.now(), "spi_ioctl");
        event.number("fd", fd).string("req", setupName(request)).unsignedNumber("request", request);
        if (value >= 0) {
            event.number("value", value);
        } else {
            event.null("value");
        }
        event.number("result", result);
        Trace::putErrno(event, err);
        trace.emit(event);
    }
    return result;
}

int SpiBus::validate(const spi_ioc_transfer* records, unsigned count) const
{
    // spidev's own limits first, over the whole message.
    std::uint64_t total = 0;
    std::uint64_t txTotal = 0;
    std::uint64_t rxTotal = 0;
    for (unsigned k = 0; k < count; ++k) {
        const spi_ioc_transfer& record = records[k];
        total += record.len;
        if (total > INT_MAX || record.len > INT_MAX) {
            return EMSGSIZE;
        }
        if (record.rx_buf != 0) {
            rxTotal += aligned(record.len);
            if (rxTotal > kBufferSize) {
                return EMSGSIZE;
            }
        }
        if (record.tx_buf != 0) {
            txTotal += aligned(record.len);
            if (txTotal > kBufferSize) {
                return EMSGSIZE;
            }
        }
    }
    // Then the SPI core's checks of each transfer.
    for (unsigned k = 0; k < count; ++k) {
        const spi_ioc_transfer& record = records[k];
        const unsigned bits = record.bits_per_word != 0 ? record.bits_per_word : m_board.run().spidev.bitsPerWord;
        if (bits > 32) {
            return EINVAL;
        }
        const std::uint32_t wordBytes = bits <= 8 ? 1 : bits <= 16 ? 2 : 4;
        if (record.len % wordBytes != 0) {
            return EINVAL;
        }
        // Single-lane controller: 0 and 1 mean one lane; dual and quad need
        // mode bits this controller does not have; other values are invalid.
        if (record.tx_buf != 0 && record.tx_nbits > 1) {
            return EINVAL;
        }
        if (record.rx_buf != 0 && record.rx_nbits > 1) {
            return EINVAL;
        }
    }
    return 0;
}

void SpiBus::checkDspHeld(std::int64_t timeNs)
{
    const GpioLine& line = m_board.run().lines[kDspLine];
    const char* detail = nullptr;
    if (line.exported == 0) {
        detail = "SPI message while GPIO 48 is not exported";
    } else if (line.output == 0) {
        detail = "SPI message while GPIO 48 is an input";
    } else if (line.outputLevel != 0) {
        detail = "SPI message while GPIO 48 is at 1";
    }
    if (detail != nullptr) {
        m_board.addViolation(timeNs, kGpio48NotLow, detail);
    }
}

std::int64_t SpiBus::recordNs(const spi_ioc_transfer& record) const
{
    const SpidevState& device = m_board.run().spidev;
    const std::uint32_t speed =
        std::min(record.speed_hz != 0 ? record.speed_hz : device.speedHz, kControllerMaxSpeedHz);
    const unsigned bits = record.bits_per_word != 0 ? record.bits_per_word : device.bitsPerWord;
    auto time = static_cast<std::int64_t>(static_cast<std::uint64_t>(record.len) * 8U * 1000000000ULL / speed);
    const std::uint32_t words = record.len / (bits <= 8 ? 1U : bits <= 16 ? 2U : 4U);
    if (words > 1) {
        time += static_cast<std::int64_t>(words - 1) * record.word_delay_usecs * 1000;
    }
    return time + static_cast<std::int64_t>(record.delay_usecs) * 1000;
}

int SpiBus::message(int fd, const spi_ioc_transfer* records, unsigned count, const char* via, std::int64_t index,
                    int& err)
{
    RunBlock& run = m_board.run();
    Counters& counters = run.counters;
    ++counters.messages;
    err = validate(records, count);
    if (err == 0 && index > 0) {
        const Faults& faults = m_board.config().faults;
        for (std::uint32_t f = 0; f < faults.msgCount; ++f) {
            const MsgFault& fault = faults.msg[f];
            const auto number = static_cast<std::uint64_t>(index);
            if (number == fault.index || (fault.andLater != 0 && number > fault.index)) {
                err = fault.error;
                break;
            }
        }
    }
    if (err != 0) {
        ++counters.failed;
        traceMessage(fd, records, count, via, index, -1, err, 0);
        return -1;
    }
    if (count == 0) {
        traceMessage(fd, records, 0, via, index, 0, 0, 0);
        return 0;
    }

    // The message's own line and the chip's lines go out together.
    TraceHold hold(m_board.trace());
    std::uint64_t total = 0;
    std::int64_t busNs = kMessageOverheadNs;
    for (unsigned k = 0; k < count; ++k) {
        total += records[k].len;
        busNs += recordNs(records[k]);
    }
    const std::int64_t start = m_board.now();
    traceMessage(fd, records, count, via, index, static_cast<int>(total), 0, busNs);
    checkDspHeld(start);

    const std::uint32_t clockMode = run.spidev.mode & (kCpha | kCpol);
    const bool modeOk = (run.spidev.mode & kCsHigh) == 0 && (clockMode == 0 || clockMode == 3);
    std::int64_t time = start + kMessageOverheadNs;
    for (unsigned k = 0; k < count; ++k) {
        const spi_ioc_transfer& record = records[k];
        const unsigned bits = record.bits_per_word != 0 ? record.bits_per_word : run.spidev.bitsPerWord;
        if (!m_chip.selected()) {
            m_chip.select(time);
        }
        m_chip.shift(reinterpret_cast<const std::uint8_t*>(static_cast<std::uintptr_t>(record.tx_buf)),
                     reinterpret_cast<std::uint8_t*>(static_cast<std::uintptr_t>(record.rx_buf)), record.len, time,
                     modeOk && bits == 8);
        time += recordNs(record);
        const bool last = k + 1 == count;
        // cs_change releases chip select between records; on the last record
        // it keeps chip select asserted into the next message instead.
        if (last ? record.cs_change == 0 : record.cs_change != 0) {
            m_chip.deselect(time);
        }
    }
    m_board.advanceTo(start + busNs);
    counters.bytes += total;
    return static_cast<int>(total);
}

void SpiBus::injectSignal(std::int64_t index)
{
    const SignalInjection& injection = m_board.config().signalInjection;
    if (injection.signal == 0 || static_cast<std::uint64_t>(index) != injection.atMessage) {
        return;
    }
    Trace& trace = m_board.trace();
    if (trace.enabled()) {
        JsonWriter event = Trace::event(m_board.now(), "signal");
        event.number("signal", injection.signal).number("index", index);
        trace.emit(event);
    }
    // Process-directed, like a kill from outside. The program's handler runs
    // as this call returns, before the message goes on the bus; a handler
    // must not call back into the board (it would wait for the board lock).
    ::kill(::getpid(), injection.signal);
}

void SpiBus::traceMessage(int fd, const spi_ioc_transfer* records, unsigned count, const char* via, std::int64_t index,
                          int result, int err, std::int64_t busNs)
{
    Trace& trace = m_board.trace();
    if (!trace.enabled()) {
        return;
    }
    JsonWriter event = Trace::event(m_board.now(), "spi_msg");
    event.number("fd", fd).string("via", via);
    if (index > 0) {
        event.number("index", index);
    } else {
        event.null("index");
    }
    event.number("n", count).number("result", result);
    Trace::putErrno(event, err);
    const GpioLine& dsp = m_board.run().lines[kDspLine];
    if (dsp.exported != 0) {
        event.number("gpio48", dsp.output != 0 ? dsp.outputLevel : dsp.externalLevel);
    } else {
        event.null("gpio48");
    }
    event.number("bus_ns", busNs);
    event.beginArray("records");
    for (unsigned k = 0; records != nullptr && k < count; ++k) {
        const spi_ioc_transfer& record = records[k];
        // A message refused for its size is not copied by the driver either.
        const bool showData = err != EMSGSIZE;
        event.beginObject()
            .hex("tx",
                 showData ? reinterpret_cast<const std::uint8_t*>(static_cast<std::uintptr_t>(record.tx_buf)) : nullptr,
                 record.len)
            .boolean("rx", record.rx_buf != 0)
            .number("len", record.len)
            .number("cs_change", record.cs_change)
            .number("speed_hz", record.speed_hz)
            .number("delay_usecs", record.delay_usecs)
            .number("bits_per_word", record.bits_per_word)
            .endObject();
    }
    event.endArray();
    trace.emit(event);
}

ssize_t SpiBus::read(int fd, void* buffer, std::size_t count, int& err)
{
    spi_ioc_transfer record{};
    record.rx_buf = reinterpret_cast<std::uintptr_t>(buffer);
    record.len = static_cast<std::uint32_t>(std::min<std::size_t>(count, 0xFFFFFFFFU));
    if (count > kBufferSize) {
        return refuseOversized(fd, record, "read", err);
    }
    return message(fd, &record, 1, "read", 0, err);
}

ssize_t SpiBus::write(int fd, const void* buffer, std::size_t count, int& err)
{
    spi_ioc_transfer record{};
    record.tx_buf = reinterpret_cast<std::uintptr_t>(buffer);
    record.len = static_cast<std::uint32_t>(std::min<std::size_t>(count, 0xFFFFFFFFU));
    if (count > kBufferSize) {
        return refuseOversized(fd, record, "write", err);
    }
    return message(fd, &record, 1, "write", 0, err);
}

ssize_t SpiBus::refuseOversized(int fd, const spi_ioc_transfer& record, const char* via, int& err)
{
    // spidev refuses a read or write above its buffer before any transfer.
    err = EMSGSIZE;
    ++m_board.run().counters.messages;
    ++m_board.run().counters.failed;
    traceMessage(fd, &record, 1, via, 0, -1, err, 0);
    return -1;
}

}  // namespace boardsim
