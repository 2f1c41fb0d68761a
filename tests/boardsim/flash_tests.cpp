// SPDX-License-Identifier: MIT
// The SPI NOR flash model, driven byte by byte through spidev messages.
#include "sim_fixture.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>

#include <cstring>

namespace boardsim_test {
namespace {

constexpr std::uint32_t kCapacity = 2 * 1024 * 1024;
constexpr std::int64_t kMs = 1000000;

class FlashTest : public SimFixture {
protected:
    void SetUp() override
    {
        SimFixture::SetUp();
        start();
        holdDsp();
    }

    // Line 48 at 0, as the tool holds it around flash work, so that the
    // tests see only the flash's own rule violations.
    void holdDsp()
    {
        ASSERT_EQ(store("/sys/class/gpio/export", "48"), 0);
        ASSERT_EQ(store("/sys/class/gpio/gpio48/direction", "out"), 0);
        fd = openSpi();
        ASSERT_GE(fd, 0);
    }

    void startWith(const boardsim::Options& options)
    {
        // A fresh run in the same test: drop the first one.
        SimFixture::TearDown();
        SimFixture::SetUp();
        start(options);
        holdDsp();
    }

    void program(std::uint32_t address, const std::vector<std::uint8_t>& data)
    {
        std::vector<std::uint8_t> command = address24(0x02, address);
        const MessageResult result = message(fd, {send({0x06}, true), send(command), send(data)});
        ASSERT_EQ(result.result, static_cast<int>(5 + data.size()));
        waitReady(fd);
    }

    std::vector<std::string> violationRules()
    {
        std::vector<std::string> rules;
        for (std::uint32_t i = 0; i < run().violationCount; ++i) {
            rules.emplace_back(boardsim::violationRuleName(run().violations[i].rule));
        }
        return rules;
    }

    // The last message released chip select just now: the flash must be busy
    // shortly before duration has passed and ready once it has.
    void expectBusyFor(std::int64_t duration)
    {
        const std::int64_t end = now() + duration;
        sim().sleep(duration - 100000, "test");
        EXPECT_EQ(readStatus(fd) & 1, 1);
        sim().sleep(end - now(), "test");
        EXPECT_EQ(readStatus(fd) & 1, 0);
    }

public:
    std::uint8_t readStatusFor(int descriptor) { return readStatus(descriptor); }
    void sleepFor(std::int64_t ns) { sim().sleep(ns, "test"); }

protected:
    int fd = -1;
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
    // A latch command followed by more bytes under the same chip select is
    // not executed.
    EXPECT_EQ(message(fd, {send({0x06, 0x00})}).result, 2);
    EXPECT_EQ(readStatus(fd), 0x00);
}

TEST_F(FlashTest, ProgramWithoutTheLatchIsIgnoredAndReported)
{
    const MessageResult result = message(fd, {send(address24(0x02, 0x100)), send({0x12, 0x34})});
    EXPECT_EQ(result.result, 6);
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

TEST_F(FlashTest, ProgramWrapsInsideItsPage)
{
    std::vector<std::uint8_t> data(32);
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<std::uint8_t>(i);
    }
    program(0x1F0, data);
    EXPECT_EQ(flash()[0x1F0], 0);
    EXPECT_EQ(flash()[0x1FF], 15);
    EXPECT_EQ(flash()[0x100], 16);  // wrapped to the page's start
    EXPECT_EQ(flash()[0x10F], 31);
    EXPECT_EQ(flash()[0x110], 0xFF);
    EXPECT_EQ(flash()[0x200], 0xFF);  // the next page is untouched
}

TEST_F(FlashTest, MoreThanAPageKeepsTheLastBytesSent)
{
    std::vector<std::uint8_t> data(300, 0xFF);
    for (std::size_t i = 256; i < data.size(); ++i) {
        data[i] = 0x5A;
    }
    program(0x300, data);
    EXPECT_EQ(flash()[0x300], 0x5A);
    EXPECT_EQ(flash()[0x300 + 43], 0x5A);
    EXPECT_EQ(flash()[0x300 + 44], 0xFF);
    EXPECT_EQ(run().counters.programmedPages, 1U);
}

TEST_F(FlashTest, BusyWithLatchDuringProgramThenBothClearInVirtualTime)
{
    const MessageResult result =
        message(fd, {send({0x06}, true), send(address24(0x02, 0)), send(std::vector<std::uint8_t>(256, 0))});
    ASSERT_EQ(result.result, 261);
    EXPECT_EQ(readStatus(fd), 0x03);
    sim().sleep(300000, "test");
    EXPECT_EQ(readStatus(fd), 0x03);
    sim().sleep(100000, "test");
    EXPECT_EQ(readStatus(fd), 0x00);
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
}

TEST_F(FlashTest, FastReadSkipsOneDummyByte)
{
    flash()[0x20] = 0x77;
    flash()[0x21] = 0x88;
    std::vector<std::uint8_t> command = address24(0x0B, 0x20);
    command.push_back(0x00);
    EXPECT_EQ(message(fd, {send(command), receive(2)}).rx[0], (std::vector<std::uint8_t>{0x77, 0x88}));
}

TEST_F(FlashTest, EraseCommandsClearTheirAlignedRange)
{
    std::memset(flash(), 0, 0x30000);
    writeEnable(fd);
    message(fd, {send(address24(0x20, 0x1234))});
    expectBusyFor(45 * kMs);
    writeEnable(fd);
    message(fd, {send(address24(0x52, 0x9000))});
    expectBusyFor(120 * kMs);
    writeEnable(fd);
    message(fd, {send(address24(0xD8, 0x12345))});
    expectBusyFor(150 * kMs);
    EXPECT_EQ(flash()[0x0FFF], 0x00);
    EXPECT_EQ(flash()[0x1000], 0xFF);
    EXPECT_EQ(flash()[0x1FFF], 0xFF);
    EXPECT_EQ(flash()[0x2000], 0x00);
    EXPECT_EQ(flash()[0x7FFF], 0x00);
    EXPECT_EQ(flash()[0x8000], 0xFF);
    EXPECT_EQ(flash()[0xFFFF], 0xFF);
    EXPECT_EQ(flash()[0x10000], 0xFF);
    EXPECT_EQ(flash()[0x1FFFF], 0xFF);
    EXPECT_EQ(flash()[0x20000], 0x00);
    EXPECT_EQ(run().counters.sectorErases, 1U);
    EXPECT_EQ(run().counters.block32Erases, 1U);
    EXPECT_EQ(run().counters.block64Erases, 1U);
}

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

TEST_F(FlashTest, ChipEraseTimeFollowsProfileAndTiming)
{
    message(fd, {send({0x06}, true), send({0xC7})});
    expectBusyFor(5000 * kMs);
    EXPECT_EQ(flash()[kCapacity - 1], 0xFF);

    boardsim::Options maximum;
    maximum.maxTiming = true;
    startWith(maximum);
    message(fd, {send({0x06}, true), send({0xC7})});
    expectBusyFor(25000 * kMs);

    boardsim::Options slow;
    slow.profile = "slow-erase";
    startWith(slow);
    message(fd, {send({0x06}, true), send({0xC7})});
    expectBusyFor(40000 * kMs);
}

// The tool gives a chip erase ten runs of up to 3125 back-to-back status
// reads, each followed by a one-second sleep: the default part finishes
// within them, the slow-erase part must not.
bool readyWithinTheToolsWaits(FlashTest& test, int fd)
{
    for (int wait = 0; wait < 10; ++wait) {
        for (int poll = 0; poll < 3125; ++poll) {
            if ((test.readStatusFor(fd) & 1) == 0) {
                return true;
            }
        }
        test.sleepFor(1000 * kMs);
    }
    return false;
}

TEST_F(FlashTest, SlowEraseProfileOutlastsTheToolsTenWaits)
{
    std::uint32_t speed = 10000000;  // the tool's clock
    ASSERT_EQ(ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &speed), 0);
    message(fd, {send({0x06}, true), send({0xC7})});
    EXPECT_TRUE(readyWithinTheToolsWaits(*this, fd));

    boardsim::Options slow;
    slow.profile = "slow-erase";
    startWith(slow);
    ASSERT_EQ(ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &speed), 0);
    message(fd, {send({0x06}, true), send({0xC7})});
    EXPECT_FALSE(readyWithinTheToolsWaits(*this, fd));
    EXPECT_GT(now(), 10 * 1000 * kMs);
}

TEST_F(FlashTest, FlipFaultChangesOnlyWhatIsReadBack)
{
    boardsim::Options options;
    options.faults = {"flip:0x10:0x81"};
    startWith(options);
    flash()[0x10] = 0x3C;
    EXPECT_EQ(readData(fd, 0x0E, 4), (std::vector<std::uint8_t>{0xFF, 0xFF, 0xBD, 0xFF}));
    EXPECT_EQ(flash()[0x10], 0x3C);
}

TEST_F(FlashTest, FlipFaultBoundToAMessageHitsOnlyThatMessage)
{
    boardsim::Options options;
    options.faults = {"flip:0x10:0x81:2"};
    startWith(options);
    flash()[0x10] = 0x3C;
    EXPECT_EQ(readData(fd, 0x10, 1)[0], 0x3C);
    EXPECT_EQ(readData(fd, 0x10, 1)[0], 0xBD);
    EXPECT_EQ(readData(fd, 0x10, 1)[0], 0x3C);
}

TEST_F(FlashTest, BusyFaultKeepsTheFlashBusyForever)
{
    boardsim::Options options;
    options.faults = {"busy"};
    startWith(options);
    flash()[0] = 0x42;
    EXPECT_EQ(readStatus(fd) & 1, 1);
    sim().sleep(3600LL * 1000 * kMs, "test");
    EXPECT_EQ(readStatus(fd) & 1, 1);
    EXPECT_EQ(readData(fd, 0, 1)[0], 0xFF);
    EXPECT_EQ(violationRules(), std::vector<std::string>{"busy-command"});
}

TEST_F(FlashTest, ContentIsInTheStateFolderFile)
{
    program(0x200, {0xDE, 0xAD});
    const std::string content = readFile(stateDir() + "/flash.bin");
    ASSERT_EQ(content.size(), kCapacity);
    EXPECT_EQ(static_cast<std::uint8_t>(content[0x200]), 0xDE);
    EXPECT_EQ(static_cast<std::uint8_t>(content[0x201]), 0xAD);
    EXPECT_EQ(static_cast<std::uint8_t>(content[0x202]), 0xFF);
}

}  // namespace
}  // namespace boardsim_test
