// SPDX-License-Identifier: MIT
#include "sim_fixture.h"

#include "run_config.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

namespace boardsim_test {

Record send(std::vector<std::uint8_t> bytes, bool csChange)
{
    Record record;
    record.tx = std::move(bytes);
    record.csChange = csChange;
    return record;
}

Record receive(std::uint32_t length)
{
    Record record;
    record.rxLength = length;
    return record;
}

std::vector<std::uint8_t> address24(std::uint8_t opcode, std::uint32_t address)
{
    return {opcode, static_cast<std::uint8_t>(address >> 16), static_cast<std::uint8_t>(address >> 8),
            static_cast<std::uint8_t>(address)};
}

namespace {

// What a served call returns, or -errno: a failure must answer -1 and set
// an errno.
template <typename T>
T resultOrErrno(const std::optional<boardsim::Served<T>>& served)
{
    EXPECT_TRUE(served);
    EXPECT_TRUE(!served || served->result >= 0 || (served->result == -1 && served->err > 0));
    return !served ? 0 : served->result >= 0 ? served->result : -served->err;
}

}  // namespace

void SimFixture::start(const boardsim::Options& options)
{
    m_simulator.reset();
    m_runFile.reset();
    const std::string run = std::to_string(++m_runs);
    m_stateDir = m_root.path("state" + run);
    std::string error;
    m_runFile = boardsim::RunFile::create(m_root.path("run" + run + ".bin"), error);
    ASSERT_TRUE(m_runFile) << error;
    ASSERT_TRUE(boardsim::setUpRun(options, m_stateDir, {}, m_runFile->block(), error)) << error;
    m_simulator = boardsim::Simulator::create(m_runFile->path().c_str(), error);
    ASSERT_TRUE(m_simulator) << error;
}

int SimFixture::open(const char* path, int flags)
{
    const boardsim::Simulator::Opened opened = m_simulator->open(path, flags, 0);
    EXPECT_EQ(opened.outcome, boardsim::Simulator::OpenOutcome::kDone) << path;
    return resultOrErrno(std::make_optional(boardsim::Served<int>{opened.fd, opened.err}));
}

void SimFixture::close(int fd)
{
    EXPECT_TRUE(m_simulator->close(fd));
    ::close(fd);
}

ssize_t SimFixture::writeText(int fd, const std::string& text)
{
    return resultOrErrno(m_simulator->write(fd, text.data(), text.size()));
}

std::string SimFixture::readText(int fd, std::size_t count)
{
    std::string buffer(count, '\0');
    const auto served = m_simulator->read(fd, &buffer[0], count);
    EXPECT_TRUE(served);
    if (!served || served->result < 0) {
        return "error " + std::to_string(served ? served->err : 0);
    }
    buffer.resize(static_cast<std::size_t>(served->result));
    return buffer;
}

int SimFixture::ioctl(int fd, unsigned long request, void* argument)
{
    return resultOrErrno(m_simulator->ioctl(fd, request, argument));
}

int SimFixture::store(const std::string& path, const std::string& text)
{
    const int fd = open(path.c_str(), O_WRONLY);
    if (fd < 0) {
        return -fd;
    }
    const ssize_t written = writeText(fd, text);
    close(fd);
    return written < 0 ? static_cast<int>(-written) : 0;
}

std::string SimFixture::show(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDONLY);
    if (fd < 0) {
        return "open error " + std::to_string(-fd);
    }
    const std::string text = readText(fd);
    close(fd);
    return text;
}

MessageResult SimFixture::message(int fd, const std::vector<Record>& records)
{
    constexpr std::ptrdiff_t kGuard = 64;  // bytes after each receive buffer the models must leave alone
    std::vector<spi_ioc_transfer> transfers(records.size());
    std::vector<std::vector<std::uint8_t>> rx(records.size());
    for (std::size_t k = 0; k < records.size(); ++k) {
        const Record& record = records[k];
        spi_ioc_transfer& transfer = transfers[k];
        if (!record.tx.empty()) {
            transfer.tx_buf = reinterpret_cast<std::uintptr_t>(record.tx.data());
        }
        if (record.rxLength > 0) {
            rx[k].assign(record.rxLength + kGuard, 0xAA);
            transfer.rx_buf = reinterpret_cast<std::uintptr_t>(rx[k].data());
        }
        transfer.len = record.length != 0
                           ? record.length
                           : static_cast<std::uint32_t>(std::max<std::size_t>(record.tx.size(), record.rxLength));
        transfer.cs_change = record.csChange ? 1 : 0;
        transfer.speed_hz = record.speedHz;
        transfer.delay_usecs = record.delayUsecs;
        transfer.tx_nbits = record.txNbits;
        transfer.rx_nbits = record.rxNbits;
        transfer.bits_per_word = record.bitsPerWord;
    }
    MessageResult result;
    result.result = ioctl(fd, SPI_IOC_MESSAGE(records.size()), transfers.data());
    for (std::size_t k = 0; k < records.size(); ++k) {
        if (records[k].rxLength > 0) {
            const auto end = rx[k].begin() + records[k].rxLength;
            EXPECT_EQ(std::count(end, rx[k].end(), 0xAA), kGuard) << "written past the receive buffer";
            result.rx.emplace_back(rx[k].begin(), end);
        }
    }
    return result;
}

std::uint8_t SimFixture::readStatus(int fd)
{
    const MessageResult result = message(fd, {send({0x05}), receive(1)});
    EXPECT_EQ(result.result, 2);
    return result.rx.empty() ? 0xAA : result.rx[0][0];
}

std::vector<std::uint8_t> SimFixture::readData(int fd, std::uint32_t address, std::uint32_t length)
{
    const MessageResult result = message(fd, {send(address24(0x03, address)), receive(length)});
    EXPECT_EQ(result.result, static_cast<int>(4 + length));
    return result.rx.empty() ? std::vector<std::uint8_t>() : result.rx[0];
}

void SimFixture::waitReady(int fd)
{
    for (int poll = 0; poll < 1000000; ++poll) {
        if ((readStatus(fd) & 1) == 0) {
            return;
        }
    }
    ADD_FAILURE() << "flash stayed busy";
}

std::vector<std::string> SimFixture::violationRules()
{
    std::vector<std::string> rules;
    for (std::uint32_t i = 0; i < run().violationCount; ++i) {
        rules.emplace_back(boardsim::violationRuleName(run().violations[i].rule));
    }
    return rules;
}

void SpiFixture::startWith(const boardsim::Options& options, bool holdDsp)
{
    start(options);
    if (holdDsp) {
        ASSERT_EQ(store("/sys/class/gpio/export", "48"), 0);
        ASSERT_EQ(store("/sys/class/gpio/gpio48/direction", "out"), 0);
    }
    fd = openSpi();
    ASSERT_GE(fd, 0);
}

}  // namespace boardsim_test
