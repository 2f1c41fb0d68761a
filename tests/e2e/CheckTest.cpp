// SPDX-License-Identifier: MIT
// "check": the verdict on whether the flash holds an image.

#include "E2eSupport.h"

#include <sys/stat.h>

using namespace boardtest;

namespace {

const std::string UP_TO_DATE = "Requested DSP FW is UP-TO-DATE";
const std::string NOT_ACTUAL = "Requested DSP FW is NOT actual...";

class Check : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_flash = patternBytes(FLASH_CAPACITY, 41);
        m_board.setFlash(m_flash);
    }

    Bytes flashPrefix(std::size_t length) const
    {
        return Bytes(m_flash.begin(), m_flash.begin() + static_cast<std::ptrdiff_t>(length));
    }

    RunResult check(const Bytes& image, const RunSettings& settings = {}) const
    {
        writeFile(m_board.path("image.bin"), image);
        return m_board.merivak({"check", "image.bin"}, settings);
    }

    SimulatedBoard m_board;
    Bytes m_flash;
};

TEST_F(Check, FlashHoldingTheImageIsUpToDate)
{
    const RunResult run = check(flashPrefix(FIRMWARE_AREA));
    expectSuccessfulRun(run);
    EXPECT_EQ(run.logMessages(), std::vector<std::string>{UP_TO_DATE});
    EXPECT_EQ(messagesOfKind(run, MessageKind::Read).size(), 512U);
    EXPECT_EQ(m_board.flash(), m_flash);
}

TEST_F(Check, ShorterImageIsComparedOverItsOwnLength)
{
    const RunResult run = check(flashPrefix(100));
    expectSuccessfulRun(run);
    EXPECT_EQ(run.logMessages(), std::vector<std::string>{UP_TO_DATE});
    EXPECT_EQ(messagesOfKind(run, MessageKind::Read).size(), 512U) << "the whole area is read however short the file";
}

TEST_F(Check, EmptyImageIsUpToDate)
{
    const RunResult run = check(Bytes{});
    expectSuccessfulRun(run);
    EXPECT_EQ(run.logMessages(), std::vector<std::string>{UP_TO_DATE});
    EXPECT_EQ(messagesOfKind(run, MessageKind::Read).size(), 512U);
}

TEST_F(Check, OneChangedByteIsNotActual)
{
    for (const std::size_t at : {std::size_t{0}, std::size_t{70000}, FIRMWARE_AREA - 1}) {
        SCOPED_TRACE(at);
        Bytes image = flashPrefix(FIRMWARE_AREA);
        image[at] ^= 0x10;
        const RunResult run = check(image);
        expectFailedRun(run);
        EXPECT_EQ(run.violationsTotal(), 0);
        EXPECT_EQ(run.logMessages(), std::vector<std::string>{NOT_ACTUAL});
    }
}

TEST_F(Check, ByteThatReadsBackWrongIsNotActual)
{
    RunSettings settings;
    settings.simulatorOptions = {"--fault", "flip:0x1ff00:0x80"};
    const RunResult run = check(flashPrefix(FIRMWARE_AREA), settings);
    expectFailedRun(run);
    EXPECT_EQ(run.logMessages(), std::vector<std::string>{NOT_ACTUAL});
}

TEST_F(Check, ImageLongerThanTheFirmwareAreaIsNeverActual)
{
    Bytes image = flashPrefix(FIRMWARE_AREA + 1);
    const RunResult run = check(image);
    expectFailedRun(run);
    EXPECT_EQ(run.logMessages(), std::vector<std::string>{NOT_ACTUAL});
}

// A name that exists but cannot be opened as a file (a folder) counts as up
// to date: neither it nor the flash is read.
TEST_F(Check, ImageThatCannotBeOpenedCountsAsUpToDate)
{
    ASSERT_EQ(::mkdir(m_board.path("folder.bin").c_str(), 0755), 0);
    const RunResult run = m_board.merivak({"check", "folder.bin"});
    expectSuccessfulRun(run);
    EXPECT_TRUE(run.spiMessages().empty());
    EXPECT_EQ(run.logMessages(), std::vector<std::string>{UP_TO_DATE});
    const std::vector<QJsonObject> values = run.gpioWrites("gpio48/value");
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(text(values[0].value(QStringLiteral("data"))), "0");
    EXPECT_TRUE(releasePauseBetween(run, traceIndex(run, values[0]), traceIndex(run, values[1])));
}

class CheckFailure : public Check, public ::testing::WithParamInterface<std::int64_t> {};

TEST_P(CheckFailure, GivesNoVerdict)
{
    const std::int64_t failing = GetParam();
    RunSettings settings;
    settings.simulatorOptions = {"--fault", "msg:" + std::to_string(failing) + ":EIO"};
    const RunResult run = check(flashPrefix(FIRMWARE_AREA), settings);
    expectFailedRun(run);
    EXPECT_EQ(static_cast<std::int64_t>(run.spiMessages().size()), failing);
    EXPECT_TRUE(run.logRecords("INFO", "Requested DSP FW").empty()) << run.log;
    EXPECT_EQ(run.logRecords("ERROR"), std::vector<std::string>{"SPI message cannot be sent -> ERRNO : 5"});
    EXPECT_EQ(run.logRecords("INFO", "Flash is not ready!!! ").size(), failing % 2 == 0 ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Messages, CheckFailure, ::testing::Values(1, 2 * 255 + 1, 2 * 511 + 1, 1024),
                         [](const ::testing::TestParamInfo<std::int64_t>& param) {
                             return "Message" + std::to_string(param.param);
                         });

}  // namespace
