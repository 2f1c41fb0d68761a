// SPDX-License-Identifier: MIT
// "read": the firmware area saved into a file, only after all of it was read.

#include "E2eSupport.h"

using namespace boardtest;

namespace {

constexpr std::size_t PAGE = 256;

class Read : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_flash = patternBytes(FLASH_CAPACITY, 31);
        m_board.setFlash(m_flash);
    }

    Bytes firmwareArea() const { return Bytes(m_flash.begin(), m_flash.begin() + FIRMWARE_AREA); }

    SimulatedBoard m_board;
    Bytes m_flash;
};

TEST_F(Read, FileHoldsExactlyTheFirmwareArea)
{
    const RunResult run = m_board.merivak({"read", "out.bin"});
    expectSuccessfulRun(run);
    EXPECT_EQ(readFile(m_board.path("out.bin")), firmwareArea());
    EXPECT_EQ(m_board.flash(), m_flash) << "reading changes nothing";
    EXPECT_EQ(run.logMessages(), std::vector<std::string>{"Saving the FLASH content....success"});
}

TEST_F(Read, EveryPageIsOneReadMessageFollowedByAPoll)
{
    const RunResult run = m_board.merivak({"read", "out.bin"});
    expectSuccessfulRun(run);

    const std::vector<QJsonObject> messages = run.spiMessages();
    ASSERT_EQ(messages.size(), 1024U);
    for (std::size_t page = 0; page < 512; ++page) {
        const QJsonObject& read = messages[2 * page];
        ASSERT_EQ(kindOf(read), MessageKind::Read) << "page " << page;
        EXPECT_EQ(integer(read.value(QStringLiteral("n"))), 2);
        const std::vector<Record> r = records(read);
        const std::uint32_t address = static_cast<std::uint32_t>(page * PAGE);
        EXPECT_EQ(r[0].tx, hex({0x03, static_cast<std::uint8_t>(address >> 16), static_cast<std::uint8_t>(address >> 8),
                                static_cast<std::uint8_t>(address)}));
        EXPECT_EQ(r[0].len, 4);
        EXPECT_FALSE(r[0].rx);
        EXPECT_EQ(r[0].csChange, 0);
        EXPECT_EQ(r[1].tx, "null");
        EXPECT_TRUE(r[1].rx);
        EXPECT_EQ(r[1].len, 256);
        EXPECT_EQ(r[1].csChange, 0);
        for (const Record& record : r) {
            EXPECT_EQ(record.speedHz, 0);
            EXPECT_EQ(record.delayUsecs, 0);
            EXPECT_EQ(record.bitsPerWord, 0);
        }
        EXPECT_EQ(kindOf(messages[2 * page + 1]), MessageKind::Status) << "page " << page;
    }
    EXPECT_EQ(records(messages[0])[0].tx, "03000000");
    EXPECT_EQ(records(messages[2 * 256])[0].tx, "03010000");
    EXPECT_EQ(records(messages[2 * 511])[0].tx, "0301ff00");

    // The file is opened only after line 48 was released.
    EXPECT_TRUE(releasePauseBetween(run, traceIndex(run, messages.back()), lastRelease(run)));
}

TEST_F(Read, LongerExistingFileIsCutToTheFirmwareArea)
{
    writeFile(m_board.path("out.bin"), Bytes(FIRMWARE_AREA + 5000, 0x00));
    const RunResult run = m_board.merivak({"read", "out.bin"});
    expectSuccessfulRun(run);
    EXPECT_EQ(readFile(m_board.path("out.bin")), firmwareArea());
}

TEST_F(Read, FileInAMissingFolderIsAnError)
{
    const RunResult run = m_board.merivak({"read", "no-folder/out.bin"});
    expectFailedRun(run);
    EXPECT_EQ(run.violationsTotal(), 0);
    EXPECT_EQ(run.spiMessages().size(), 1024U) << "the whole area is read before the file is opened";
    EXPECT_EQ(run.logMessages(), std::vector<std::string>{"Saving the FLASH content....error!!"});
}

// A failure anywhere in the read leaves an existing file as it was.
class ReadFailure : public Read, public ::testing::WithParamInterface<std::int64_t> {};

TEST_P(ReadFailure, LeavesTheExistingFileUntouched)
{
    const std::int64_t failing = GetParam();
    const Bytes old = patternBytes(1000, 32);
    writeFile(m_board.path("out.bin"), old);

    RunSettings settings;
    settings.simulatorOptions = {"--fault", "msg:" + std::to_string(failing) + ":ETIMEDOUT"};
    const RunResult run = m_board.merivak({"read", "out.bin"}, settings);
    expectFailedRun(run);
    EXPECT_EQ(run.violationsTotal(), 0) << run.describe();
    EXPECT_EQ(readFile(m_board.path("out.bin")), old);

    const std::vector<QJsonObject> messages = run.spiMessages();
    ASSERT_EQ(static_cast<std::int64_t>(messages.size()), failing) << "nothing is sent after the failure";
    const bool pollFailed = failing % 2 == 0;
    std::vector<std::string> expectedLog = {"SPI message cannot be sent -> ERRNO : 110"};
    if (pollFailed) {
        expectedLog.push_back("Flash is not ready!!! ");
    }
    EXPECT_EQ(run.logMessages(), expectedLog);
    EXPECT_FALSE(releasePauseBetween(run, traceIndex(run, messages.back()), lastRelease(run)))
        << "line 48 is released at once after a failure";
}

// Messages 2k+1 read page k, 2k+2 poll after it: the first page, a middle
// page, the last page, and the poll after the last page.
INSTANTIATE_TEST_SUITE_P(Messages, ReadFailure, ::testing::Values(1, 2 * 255 + 1, 2 * 511 + 1, 1024),
                         [](const ::testing::TestParamInfo<std::int64_t>& param) {
                             return "Message" + std::to_string(param.param);
                         });

TEST_F(Read, FlashThatStaysBusyIsNotReadOut)
{
    writeFile(m_board.path("out.bin"), Bytes{1, 2, 3});
    RunSettings settings;
    settings.simulatorOptions = {"--fault", "busy"};
    const RunResult run = m_board.merivak({"read", "out.bin"}, settings);
    expectFailedRun(run);
    EXPECT_EQ(run.spiMessages().size(), 1 + 3125U) << "one page read, then one full run of polls";
    EXPECT_EQ(run.logMessages(), std::vector<std::string>{"Flash is not ready!!! "});
    EXPECT_EQ(readFile(m_board.path("out.bin")), (Bytes{1, 2, 3}));
}

}  // namespace
