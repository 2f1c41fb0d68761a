// SPDX-License-Identifier: MIT
// The spidev node: set-up requests, message validation, chip select across
// records and messages, bus time, faults and the DSP-hold rule.
#include "sim_fixture.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>

#include <cstring>

namespace boardsim_test {
namespace {

class SpidevTest : public SpiFixture {
protected:
    // Board time a message takes.
    std::int64_t cost(const std::vector<Record>& records)
    {
        const std::int64_t before = now();
        EXPECT_GE(message(fd, records).result, 0);
        return now() - before;
    }
};

// Each set-up request is checked as the driver checks it; a refused one (or
// one a fault fails) keeps the power-up setting: mode 0, 8 bits, 20 MHz.
struct SetupCase {
    const char* fault;
    unsigned long request;
    std::uint32_t value;
    int err;
    unsigned long readBack;
    std::uint32_t expected;
};

class SetupTest : public SpidevTest, public ::testing::WithParamInterface<SetupCase> {};

TEST_P(SetupTest, RequestIsCheckedAndReadsBackWhatWasKept)
{
    const SetupCase& setup = GetParam();
    boardsim::Options options;
    if (setup.fault != nullptr) {
        options.faults = {setup.fault};
    }
    startWith(options);
    std::uint32_t value = setup.value;  // byte requests use its first byte
    EXPECT_EQ(ioctl(fd, setup.request, &value), -setup.err);
    std::uint32_t kept = 0;
    EXPECT_EQ(ioctl(fd, setup.readBack, &kept), 0);
    EXPECT_EQ(kept, setup.expected);
}

constexpr unsigned long kTcgets = 0x5401;
INSTANTIATE_TEST_SUITE_P(
    Requests, SetupTest,
    ::testing::Values(SetupCase{nullptr, SPI_IOC_WR_MODE, 3, 0, SPI_IOC_RD_MODE, 3},
                      SetupCase{nullptr, SPI_IOC_WR_MODE, 0x08, EINVAL, SPI_IOC_RD_MODE, 0},  // LSB first
                      SetupCase{nullptr, SPI_IOC_WR_MODE32, 0x101, 0, SPI_IOC_RD_MODE32, 1},  // dual TX dropped
                      SetupCase{nullptr, SPI_IOC_WR_MODE32, 0x1000, EINVAL, SPI_IOC_RD_MODE32, 0},
                      SetupCase{nullptr, SPI_IOC_WR_BITS_PER_WORD, 0, 0, SPI_IOC_RD_BITS_PER_WORD, 8},
                      SetupCase{nullptr, SPI_IOC_WR_BITS_PER_WORD, 32, 0, SPI_IOC_RD_BITS_PER_WORD, 32},
                      SetupCase{nullptr, SPI_IOC_WR_BITS_PER_WORD, 33, EINVAL, SPI_IOC_RD_BITS_PER_WORD, 8},
                      // Above the controller's 60 MHz: kept as asked.
                      SetupCase{nullptr, SPI_IOC_WR_MAX_SPEED_HZ, 100000000, 0, SPI_IOC_RD_MAX_SPEED_HZ, 100000000},
                      SetupCase{nullptr, SPI_IOC_WR_MAX_SPEED_HZ, 0, EINVAL, SPI_IOC_RD_MAX_SPEED_HZ, 20000000},
                      SetupCase{nullptr, SPI_IOC_WR_LSB_FIRST, 1, EINVAL, SPI_IOC_RD_LSB_FIRST, 0},
                      SetupCase{nullptr, SPI_IOC_WR_LSB_FIRST, 0, 0, SPI_IOC_RD_MODE, 0},
                      SetupCase{"setup:WR_MAX_SPEED_HZ:EIO", SPI_IOC_WR_MAX_SPEED_HZ, 10000000, EIO,
                                SPI_IOC_RD_MAX_SPEED_HZ, 20000000},
                      SetupCase{"setup:WR_MODE:ENODEV", SPI_IOC_WR_MODE, 3, ENODEV, SPI_IOC_RD_MODE, 0},
                      SetupCase{nullptr, _IOR(SPI_IOC_MAGIC, 9, __u8), 0, ENOTTY, SPI_IOC_RD_MODE, 0},
                      SetupCase{nullptr, kTcgets, 0, ENOTTY, SPI_IOC_RD_BITS_PER_WORD, 8}));

TEST_F(SpidevTest, MessagesAreCheckedBeforeAnythingReachesTheBus)
{
    spi_ioc_transfer records[2] = {};
    const std::uint8_t writeEnableByte = 0x06;
    records[0].tx_buf = reinterpret_cast<std::uintptr_t>(&writeEnableByte);
    records[0].len = 1;
    EXPECT_EQ(ioctl(fd, _IOW(SPI_IOC_MAGIC, 0, char[40]), records), -EINVAL);
    EXPECT_EQ(ioctl(fd, _IOR(SPI_IOC_MAGIC, 0, char[32]), records), -ENOTTY);
    EXPECT_EQ(ioctl(fd, SPI_IOC_MESSAGE(1), nullptr), -EFAULT);
    EXPECT_EQ(ioctl(fd, SPI_IOC_MESSAGE(0), nullptr), 0);
    EXPECT_EQ(ioctl(fd, SPI_IOC_RD_MODE, nullptr), -EFAULT);

    // bufsiz 4096 per direction, each record rounded up to 64 bytes.
    EXPECT_EQ(message(fd, {send(std::vector<std::uint8_t>(4096, 0)), receive(4096)}).result, 8192);
    // What third-party programmers send: a 4-byte command and bufsiz - 5
    // bytes read under one chip select.
    EXPECT_EQ(message(fd, {send(address24(0x03, 0)), receive(4091)}).result, 4095);
    EXPECT_EQ(message(fd, {send(address24(0x03, 0)), receive(4097)}).result, -EMSGSIZE);
    Record half = send(std::vector<std::uint8_t>(2049, 0));
    EXPECT_EQ(message(fd, {send({0x06}), half, half}).result, -EMSGSIZE);
    EXPECT_EQ(readStatus(fd), 0x00);  // none of the refused Write Enables arrived
    EXPECT_EQ(run().counters.failed, 4U);
}

// The SPI core shifts words of 1, 2 or 4 bytes for up to 8, 16 or 32 bits
// (0: the device's 8): a record must hold whole words, and more than 32 bits
// is refused, as are dual or quad lanes on a buffer of this single-lane
// controller. Only 8-bit words reach the chip as commands.
struct RecordCase {
    std::uint8_t bits;
    std::uint32_t length;
    std::uint8_t txLanes;
    std::uint8_t rxLanes;
    int err;
};

class RecordCheckTest : public SpidevTest, public ::testing::WithParamInterface<RecordCase> {};

TEST_P(RecordCheckTest, RecordsHoldWholeWordsOnOneLaneAndOnlyBytesAreDecoded)
{
    const RecordCase& check = GetParam();
    Record writeEnable = send(std::vector<std::uint8_t>(check.length, 0x06));
    writeEnable.rxLength = check.length;
    writeEnable.bitsPerWord = check.bits;
    writeEnable.txNbits = check.txLanes;
    writeEnable.rxNbits = check.rxLanes;
    EXPECT_EQ(message(fd, {writeEnable}).result, check.err == 0 ? static_cast<int>(check.length) : -check.err);
    const bool latched = check.err == 0 && check.length == 1 && check.bits % 8 == 0;
    EXPECT_EQ(readStatus(fd), latched ? 0x02 : 0x00);
}

INSTANTIATE_TEST_SUITE_P(Records, RecordCheckTest,
                         ::testing::Values(RecordCase{0, 1, 0, 0, 0}, RecordCase{8, 1, 1, 1, 0},
                                           RecordCase{7, 1, 0, 0, 0}, RecordCase{9, 1, 0, 0, EINVAL},
                                           RecordCase{9, 2, 0, 0, 0}, RecordCase{16, 3, 0, 0, EINVAL},
                                           RecordCase{16, 2, 0, 0, 0}, RecordCase{17, 2, 0, 0, EINVAL},
                                           RecordCase{17, 4, 0, 0, 0}, RecordCase{32, 4, 0, 0, 0},
                                           RecordCase{32, 6, 0, 0, EINVAL}, RecordCase{33, 4, 0, 0, EINVAL},
                                           RecordCase{8, 1, 2, 0, EINVAL}, RecordCase{8, 1, 0, 4, EINVAL}));

TEST_F(SpidevTest, ChipSelectIsReleasedOnlyAfterCsChangeAndAtTheEnd)
{
    std::memset(flash(), 0, 16);
    // Without cs_change the erase opcode is a second byte of the Write
    // Enable command: neither executes.
    EXPECT_EQ(message(fd, {send({0x06}), send({0xC7})}).result, 2);
    EXPECT_EQ(readStatus(fd), 0x00);
    EXPECT_EQ(flash()[0], 0x00);
    EXPECT_EQ(message(fd, {send({0x06}, true), send({0xC7})}).result, 2);
    EXPECT_EQ(readStatus(fd) & 1, 1);
    EXPECT_EQ(flash()[0], 0xFF);
}

TEST_F(SpidevTest, CsChangeOnTheLastRecordKeepsTheCommandGoingIntoTheNextMessage)
{
    flash()[0x40] = 0x12;
    flash()[0x41] = 0x34;
    EXPECT_EQ(message(fd, {send(address24(0x03, 0x40), true)}).result, 4);
    EXPECT_EQ(message(fd, {receive(2)}).rx[0], (std::vector<std::uint8_t>{0x12, 0x34}));
    // That message ended the frame: a new one starts with an opcode.
    EXPECT_EQ(readStatus(fd), 0x00);
}

TEST_F(SpidevTest, RecordsWithoutTxBufferClockOutZeros)
{
    Record zeros;
    zeros.length = 4;
    const MessageResult result = message(fd, {send({0x06}, true), send(address24(0x02, 0x80)), zeros});
    EXPECT_EQ(result.result, 9);  // the total length of the message
    waitReady(fd);
    EXPECT_EQ(readData(fd, 0x80, 5), (std::vector<std::uint8_t>{0, 0, 0, 0, 0xFF}));
}

TEST_F(SpidevTest, EveryMessageCostsOverheadAndItsBitsAtTheClock)
{
    EXPECT_EQ(cost({send({0x05}), receive(1)}), 20000 + 800);  // 2 bytes at 20 MHz
    std::uint32_t speed = 10000000;
    ASSERT_EQ(ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &speed), 0);
    EXPECT_EQ(cost({send({0x05}), receive(1)}), 20000 + 1600);
    Record slow = send({0x05});
    slow.speedHz = 1000000;
    EXPECT_EQ(cost({slow}), 20000 + 8000);
    Record fast = send({0x05, 0x00, 0x00});
    fast.speedHz = 120000000;  // the controller runs it at 60 MHz
    EXPECT_EQ(cost({fast}), 20000 + 400);
    Record delayed = send({0x05});
    delayed.delayUsecs = 5;
    EXPECT_EQ(cost({delayed}), 20000 + 800 + 5000);
}

// A failed message never reaches the bus (the Write Enable is lost) but is
// counted as a message and as a failure.
TEST_F(SpidevTest, MessageFaultsFailTheNthMessageOrEveryOneFromIt)
{
    boardsim::Options options;
    options.faults = {"msg:2:EIO", "msg:4+:110"};
    startWith(options);
    EXPECT_EQ(readStatus(fd), 0x00);
    EXPECT_EQ(message(fd, {send({0x06})}).result, -EIO);
    EXPECT_EQ(readStatus(fd), 0x00);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(message(fd, {send({0x05}), receive(1)}).result, -ETIMEDOUT);
    }
    EXPECT_EQ(run().counters.failed, 4U);
    EXPECT_EQ(run().counters.messages, 6U);
}

TEST_F(SpidevTest, MessagesWhileTheDspIsNotHeldOffAreReported)
{
    startWith(boardsim::Options(), false);
    readStatus(fd);  // line 48 not exported
    ASSERT_EQ(store("/sys/class/gpio/export", "48"), 0);
    readStatus(fd);  // an input does not hold the DSP
    ASSERT_EQ(store("/sys/class/gpio/gpio48/direction", "out"), 0);
    readStatus(fd);  // output at 0: held
    ASSERT_EQ(store("/sys/class/gpio/gpio48/value", "1"), 0);
    readStatus(fd);
    EXPECT_EQ(violationRules(), (std::vector<std::string>{"gpio48-not-low", "gpio48-not-low", "gpio48-not-low"}));
    EXPECT_NE(std::string(run().violations[1].detail).find("input"), std::string::npos);
    EXPECT_NE(std::string(run().violations[2].detail).find("at 1"), std::string::npos);
}

TEST_F(SpidevTest, ReadAndWriteOnTheNodeAreSingleRecordMessages)
{
    EXPECT_EQ(writeText(fd, "\x06"), 1);
    EXPECT_EQ(readStatus(fd), 0x02);
    EXPECT_EQ(readText(fd, 5000), "error " + std::to_string(EMSGSIZE));
    EXPECT_EQ(readText(fd, 3), "\xFF\xFF\xFF");  // a read alone sends zeros: no command
    const auto seek = sim().seek(fd, 0, SEEK_SET);
    ASSERT_TRUE(seek);
    EXPECT_EQ(seek->err, ESPIPE);
}

}  // namespace
}  // namespace boardsim_test
