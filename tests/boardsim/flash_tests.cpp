// SPDX-License-Identifier: MIT
// The SPI NOR flash model, driven byte by byte through spidev messages.
#include "sim_fixture.h"

#include <cstring>

namespace boardsim_test {
namespace {

constexpr std::uint32_t kCapacity = 2 * 1024 * 1024;
constexpr std::int64_t kMs = 1000000;

class FlashTest : public SpiFixture {
protected:
    void program(std::uint32_t address, const std::vector<std::uint8_t>& data)
    {
        const MessageResult result = message(fd, {send({0x06}, true), send(address24(0x02, address)), send(data)});
        ASSERT_EQ(result.result, static_cast<int>(5 + data.size()));
        waitReady(fd);
    }

    // The last message released chip select just now: the flash must be busy
    // with the latch set shortly before duration has passed and ready, latch
    // cleared, once it has.
    void expectBusyFor(std::int64_t duration)
    {
        const std::int64_t end = now() + duration;
        sim().sleep(duration - 100000, "test");
        EXPECT_EQ(readStatus(fd), 0x03);
        sim().sleep(end - now(), "test");
        EXPECT_EQ(readStatus(fd), 0x00);
    }
};

TEST_F(FlashTest, AnswersTheIdentificationCommandsOfTheDefaultPart)
{
    EXPECT_EQ(message(fd, {send({0x9F}), receive(3)}).rx[0], (std::vector<std::uint8_t>{0xEF, 0x40, 0x15}));
    EXPECT_EQ(message(fd, {send(address24(0x90, 0)), receive(4)}).rx[0],
              (std::vector<std::uint8_t>{0xEF, 0x14, 0xEF, 0x14}));
    EXPECT_EQ(message(fd, {send(address24(0x90, 1)), receive(2)}).rx[0], (std::vector<std::uint8_t>{0x14, 0xEF}));
    EXPECT_EQ(message(fd, {send(address24(0xAB, 0)), receive(1)}).rx[0], (std::vector<std::uint8_t>{0x14}));
}

TEST_F(FlashTest, WriteEnableAndDisableDriveTheLatchBit)
{
    EXPECT_EQ(readStatus(fd), 0x00);
    writeEnable(fd);
    EXPECT_EQ(readStatus(fd), 0x02);
    EXPECT_EQ(message(fd, {send({0x04})}).result, 1);
    EXPECT_EQ(readStatus(fd), 0x00);
}

TEST_F(FlashTest, ProgramWithoutTheLatchIsIgnoredAndReported)
{
    EXPECT_EQ(message(fd, {send(address24(0x02, 0x100)), send({0x12, 0x34})}).result, 6);
    EXPECT_EQ(flash()[0x100], 0xFF);
    EXPECT_EQ(readStatus(fd), 0x00);  // not busy: nothing was started
    EXPECT_EQ(violationRules(), std::vector<std::string>{"no-latch"});
}

TEST_F(FlashTest, ProgramOnlyClearsBitsAndReportsAskedOnes)
{
    program(0x40, {0x0F, 0xF0});
    EXPECT_EQ(flash()[0x40], 0x0F);
    EXPECT_EQ(flash()[0x41], 0xF0);
    EXPECT_TRUE(violationRules().empty());
    program(0x40, {0xF3});
    EXPECT_EQ(flash()[0x40], 0x03);
    EXPECT_EQ(flash()[0x41], 0xF0);  // not part of the second program
    EXPECT_EQ(violationRules(), std::vector<std::string>{"zero-to-one"});
    EXPECT_NE(std::strstr(run().violations[0].detail, "0x000040"), nullptr) << run().violations[0].detail;
}

// Data bytes wrap inside the page of the address; of more than a page, the
// last 256 bytes sent are kept.
TEST_F(FlashTest, ProgramWrapsInsideItsPageAndKeepsTheLastPageSent)
{
    std::vector<std::uint8_t> data(300, 0x00);
    for (std::size_t i = 44; i < data.size(); ++i) {
        data[i] = static_cast<std::uint8_t>(i ^ 0x80);
    }
    program(0x3F0, data);
    for (std::size_t i = 44; i < data.size(); ++i) {
        EXPECT_EQ(flash()[0x300 + (0xF0 + i) % 256], data[i]) << i;
    }
    EXPECT_EQ(flash()[0x2FF], 0xFF);
    EXPECT_EQ(flash()[0x400], 0xFF);
    EXPECT_EQ(run().counters.programmedPages, 1U);
}

TEST_F(FlashTest, PageProgramIsBusyForItsTime)
{
    message(fd, {send({0x06}, true), send(address24(0x02, 0)), send(std::vector<std::uint8_t>(256, 0))});
    expectBusyFor(400000);
    boardsim::Options maximum;
    maximum.maxTiming = true;
    startWith(maximum);
    message(fd, {send({0x06}, true), send(address24(0x02, 0)), send({0})});
    expectBusyFor(3 * kMs);
}

TEST_F(FlashTest, CommandsWhileBusyAreIgnoredExceptReadStatus)
{
    flash()[0] = 0x11;
    program(0x1000, {0x00});  // not at 0: the read below would see it
    writeEnable(fd);
    EXPECT_EQ(message(fd, {send({0x20, 0x00, 0x00, 0x00})}).result, 4);  // sector erase starts
    EXPECT_EQ(readStatus(fd), 0x03);
    writeEnable(fd);                                                         // ignored
    EXPECT_EQ(readData(fd, 0, 2), (std::vector<std::uint8_t>{0xFF, 0xFF}));  // chip does not drive the bus
    EXPECT_EQ(violationRules(), (std::vector<std::string>{"busy-command", "busy-command"}));
    waitReady(fd);
    EXPECT_EQ(readData(fd, 0x1000, 1)[0], 0x00);
    EXPECT_EQ(readData(fd, 0, 1)[0], 0xFF);  // the sector erase did happen
}

TEST_F(FlashTest, ReadIsContinuousAndWrapsAtTheChipEnd)
{
    flash()[kCapacity - 2] = 0xA1;
    flash()[kCapacity - 1] = 0xA2;
    flash()[0] = 0xB1;
    flash()[1] = 0xB2;
    EXPECT_EQ(readData(fd, kCapacity - 2, 4), (std::vector<std::uint8_t>{0xA1, 0xA2, 0xB1, 0xB2}));
    // The high address byte beyond the chip's size wraps as well.
    EXPECT_EQ(readData(fd, 0xE00000, 2), (std::vector<std::uint8_t>{0xB1, 0xB2}));
    // Fast Read skips one dummy byte after the address.
    EXPECT_EQ(message(fd, {send({0x0B, 0x1F, 0xFF, 0xFF, 0x00}), receive(3)}).rx[0],
              (std::vector<std::uint8_t>{0xA2, 0xB1, 0xB2}));
}

// Each erase clears its aligned range, counts itself and keeps the chip busy
// for the profile's typical or maximum time.
struct EraseCase {
    const char* profile;
    bool maxTiming;
    std::uint8_t opcode;
    std::uint32_t address;
    std::uint32_t start;
    std::uint32_t end;
    std::int64_t busyMs;
    std::uint64_t boardsim::Counters::*counter;
};

class EraseTest : public FlashTest, public ::testing::WithParamInterface<EraseCase> {};

TEST_P(EraseTest, ClearsItsAlignedRangeAndIsBusyForItsTime)
{
    const EraseCase& erase = GetParam();
    boardsim::Options options;
    options.profile = erase.profile;
    options.maxTiming = erase.maxTiming;
    startWith(options);
    std::memset(flash(), 0, kCapacity);
    writeEnable(fd);
    const bool chip = erase.opcode == 0xC7 || erase.opcode == 0x60;
    message(fd, {chip ? send({erase.opcode}) : send(address24(erase.opcode, erase.address))});
    expectBusyFor(erase.busyMs * kMs);
    EXPECT_EQ(flash()[erase.start], 0xFF);
    EXPECT_EQ(flash()[erase.end - 1], 0xFF);
    if (erase.start > 0) {
        EXPECT_EQ(flash()[erase.start - 1], 0x00);
    }
    if (erase.end < kCapacity) {
        EXPECT_EQ(flash()[erase.end], 0x00);
    }
    EXPECT_EQ(run().counters.*erase.counter, 1U);
}

using C = boardsim::Counters;
INSTANTIATE_TEST_SUITE_P(
    Commands, EraseTest,
    ::testing::Values(EraseCase{"default", false, 0x20, 0x1234, 0x1000, 0x2000, 45, &C::sectorErases},
                      EraseCase{"default", true, 0x20, 0x1FFFFF, 0x1FF000, kCapacity, 400, &C::sectorErases},
                      EraseCase{"default", false, 0x52, 0x9000, 0x8000, 0x10000, 120, &C::block32Erases},
                      EraseCase{"default", true, 0x52, 0x7FFF, 0, 0x8000, 1600, &C::block32Erases},
                      EraseCase{"default", false, 0xD8, 0x12345, 0x10000, 0x20000, 150, &C::block64Erases},
                      EraseCase{"default", true, 0xD8, 0x20000, 0x20000, 0x30000, 2000, &C::block64Erases},
                      EraseCase{"default", false, 0xC7, 0, 0, kCapacity, 5000, &C::chipErases},
                      EraseCase{"default", true, 0x60, 0, 0, kCapacity, 25000, &C::chipErases},
                      EraseCase{"slow-erase", false, 0xC7, 0, 0, kCapacity, 40000, &C::chipErases}));

// A program or erase runs only when its chip-select frame has the right
// length: a program needs at least one data byte, an erase must end right
// after its last address byte (or its opcode). A frame that runs starts the
// busy time with the latch still set; one that does not leaves the latch.
struct FrameCase {
    std::vector<std::uint8_t> frame;
    bool runs;
};

class FrameLengthTest : public FlashTest, public ::testing::WithParamInterface<FrameCase> {};

TEST_P(FrameLengthTest, CommandRunsOnlyWithItsExactFrame)
{
    std::memset(flash(), 0, 16);
    writeEnable(fd);
    EXPECT_EQ(message(fd, {send(GetParam().frame)}).result, static_cast<int>(GetParam().frame.size()));
    EXPECT_EQ(readStatus(fd), GetParam().runs ? 0x03 : 0x02);
    const bool erases = GetParam().frame[0] != 0x02;
    EXPECT_EQ(flash()[0], GetParam().runs && erases ? 0xFF : 0x00);
}

INSTANTIATE_TEST_SUITE_P(Commands, FrameLengthTest,
                         ::testing::Values(FrameCase{{0x02, 0, 0, 0}, false}, FrameCase{{0x02, 0, 0, 0, 0}, true},
                                           FrameCase{{0x20, 0, 0}, false}, FrameCase{{0x20, 0, 0, 0}, true},
                                           FrameCase{{0x20, 0, 0, 0, 0}, false}, FrameCase{{0x52, 0, 0, 0}, true},
                                           FrameCase{{0x52, 0, 0, 0, 0}, false}, FrameCase{{0xD8, 0, 0}, false},
                                           FrameCase{{0xD8, 0, 0, 0}, true}, FrameCase{{0xC7}, true},
                                           FrameCase{{0xC7, 0x00}, false}, FrameCase{{0x60}, true},
                                           FrameCase{{0x60, 0x00}, false}));

// A flip fault changes what a read shows, never the stored byte; one bound
// to a message hits only that message's reads.
TEST_F(FlashTest, FlipFaultsChangeOnlyWhatIsReadBack)
{
    boardsim::Options options;
    options.faults = {"flip:0x10:0x81", "flip:0x11:0x0F:2"};
    startWith(options);
    flash()[0x10] = 0x3C;
    flash()[0x11] = 0x3C;
    EXPECT_EQ(readData(fd, 0x0F, 4), (std::vector<std::uint8_t>{0xFF, 0xBD, 0x3C, 0xFF}));
    EXPECT_EQ(readData(fd, 0x0F, 4), (std::vector<std::uint8_t>{0xFF, 0xBD, 0x33, 0xFF}));
    EXPECT_EQ(readData(fd, 0x11, 1), (std::vector<std::uint8_t>{0x3C}));
    EXPECT_EQ(flash()[0x10], 0x3C);
}

}  // namespace
}  // namespace boardsim_test
