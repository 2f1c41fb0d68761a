// SPDX-License-Identifier: MIT
// Chip erase and status polling, seen through "write".

#include "E2eSupport.h"

using namespace boardtest;

namespace {

constexpr std::size_t STATUS_READS_PER_WAIT = 3125;

class Erase : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_original = patternBytes(FLASH_CAPACITY, 11);
        m_board.setFlash(m_original);
        m_image = patternBytes(600, 12);
        writeFile(m_board.path("image.bin"), m_image);
    }

    RunResult write(const RunSettings& settings = {}) const
    {
        return m_board.merivak({"write", "image.bin"}, settings);
    }

    // The sleep events of the erase's waiting loop.
    static std::vector<QJsonObject> oneSecondPauses(const RunResult& run)
    {
        std::vector<QJsonObject> pauses;
        for (const QJsonObject& sleep : run.events("sleep")) {
            if (text(sleep.value(QStringLiteral("call"))) == "sleep" &&
                integer(sleep.value(QStringLiteral("us"))) == 1000000) {
                pauses.push_back(sleep);
            }
        }
        return pauses;
    }

    SimulatedBoard m_board;
    Bytes m_original;
    Bytes m_image;
};

TEST_F(Erase, WriteEnableAndChipEraseGoOutUnderSeparateChipSelects)
{
    const RunResult run = write();
    expectSuccessfulRun(run);

    const std::vector<QJsonObject> messages = run.spiMessages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(kindOf(messages[0]), MessageKind::Erase) << "the erase is the first transfer of a write";
    EXPECT_EQ(integer(messages[0].value(QStringLiteral("n"))), 2);
    const std::vector<Record> erase = records(messages[0]);
    ASSERT_EQ(erase.size(), 2U);
    EXPECT_EQ(erase[0].tx, "06");
    EXPECT_FALSE(erase[0].rx);
    EXPECT_EQ(erase[0].len, 1);
    EXPECT_EQ(erase[0].csChange, 1);
    EXPECT_EQ(erase[1].tx, "c7");
    EXPECT_FALSE(erase[1].rx);
    EXPECT_EQ(erase[1].len, 1);
    EXPECT_EQ(erase[1].csChange, 0);
    for (const Record& record : erase) {
        EXPECT_EQ(record.speedHz, 0);
        EXPECT_EQ(record.delayUsecs, 0);
        EXPECT_EQ(record.bitsPerWord, 0);
    }
    EXPECT_EQ(run.events("flash_cmd").size() > 0, true);
    EXPECT_EQ(findEvent(run, 0, "flash_cmd", "name", "CE") > 0, true);
    EXPECT_EQ(run.logRecords("INFO", "Start erasing"),
              std::vector<std::string>{"Start erasing the whole DSP Flash... "});
}

TEST_F(Erase, StatusIsPolledBackToBackWithOneSecondPausesBetweenRuns)
{
    const RunResult run = write();
    expectSuccessfulRun(run);

    // The polls between the erase and the first page program.
    const std::vector<QJsonObject> messages = run.spiMessages();
    std::size_t polls = 0;
    std::size_t i = 1;
    for (; i < messages.size() && kindOf(messages[i]) == MessageKind::Status; ++i) {
        ++polls;
        const std::vector<Record> status = records(messages[i]);
        ASSERT_EQ(status.size(), 2U);
        EXPECT_EQ(status[0].tx, "05");
        EXPECT_EQ(status[0].len, 1);
        EXPECT_FALSE(status[0].rx);
        EXPECT_EQ(status[0].csChange, 0);
        EXPECT_EQ(status[1].tx, "null");
        EXPECT_TRUE(status[1].rx);
        EXPECT_EQ(status[1].len, 1);
        EXPECT_EQ(status[1].csChange, 0);
    }
    ASSERT_LT(i, messages.size());
    EXPECT_EQ(kindOf(messages[i]), MessageKind::Program);

    // A chip erase of the default chip takes seconds: several full runs of
    // 3125 polls, each followed by a one-second pause, then a partial run.
    const std::vector<QJsonObject> pauses = oneSecondPauses(run);
    ASSERT_GE(pauses.size(), 1U);
    ASSERT_LE(pauses.size(), 9U);
    EXPECT_GT(polls, pauses.size() * STATUS_READS_PER_WAIT);
    EXPECT_LE(polls, (pauses.size() + 1) * STATUS_READS_PER_WAIT);
    for (std::size_t k = 0; k < pauses.size(); ++k) {
        // Exactly 3125 polls before each pause.
        const int pause = traceIndex(run, pauses[k]);
        const int lastPoll = traceIndex(run, messages[(k + 1) * STATUS_READS_PER_WAIT]);
        const int nextPoll = traceIndex(run, messages[(k + 1) * STATUS_READS_PER_WAIT + 1]);
        EXPECT_LT(lastPoll, pause);
        EXPECT_GT(nextPoll, pause);
        EXPECT_EQ(text(pauses[k].value(QStringLiteral("thread"))), "main");
        EXPECT_TRUE(pauses[k].value(QStringLiteral("virtual")).toBool());
    }
    // Ready: 1 ms, then line 48 released, before programming starts.
    const int lastStatus = traceIndex(run, messages[i - 1]);
    const int release = findEvent(run, lastStatus, "gpio_write", "data", "1");
    EXPECT_TRUE(releasePauseBetween(run, lastStatus, release));
    EXPECT_LT(release, traceIndex(run, messages[i]));
    EXPECT_TRUE(run.logRecords("INFO", "Flash is not ready").empty());
}

TEST_F(Erase, FlashThatStaysBusyFailsAfterTenWaits)
{
    RunSettings settings;
    settings.simulatorOptions = {"--fault", "busy"};
    const RunResult run = write(settings);
    expectFailedRun(run);

    const std::vector<QJsonObject> messages = run.spiMessages();
    EXPECT_EQ(messages.size(), 1 + 10 * STATUS_READS_PER_WAIT);
    EXPECT_EQ(oneSecondPauses(run).size(), 10U) << "the tenth wait is followed by its pause too";
    EXPECT_TRUE(messagesOfKind(run, MessageKind::Program).empty()) << "no programming after a failed erase";
    EXPECT_EQ(run.logMessages(),
              (std::vector<std::string>{"Start erasing the whole DSP Flash... ", "Flash is not ready!!! "}));
    EXPECT_EQ(run.logRecords("INFO", "Flash is not ready!!! ").size(), 1U);
    // 1 ms after the last pause, line 48 goes back to 1.
    const int lastPause = traceIndex(run, oneSecondPauses(run).back());
    EXPECT_TRUE(releasePauseBetween(run, lastPause, lastRelease(run)));
    EXPECT_GE(run.boardTimeNs(), 10000000000LL);
    EXPECT_EQ(m_board.flash(), m_original);
}

TEST_F(Erase, EraseSlowerThanTenWaitsFailsWithoutProgramming)
{
    RunSettings settings;
    settings.simulatorOptions = {"--profile", "slow-erase"};
    const RunResult run = write(settings);
    expectFailedRun(run);
    EXPECT_EQ(run.violationsTotal(), 0) << run.describe();
    EXPECT_EQ(oneSecondPauses(run).size(), 10U);
    EXPECT_EQ(messagesOfKind(run, MessageKind::Status).size(), 10 * STATUS_READS_PER_WAIT);
    EXPECT_TRUE(messagesOfKind(run, MessageKind::Program).empty());
    EXPECT_EQ(run.logRecords("INFO", "Flash is not ready!!! ").size(), 1U);
    EXPECT_TRUE(run.logRecords("ERROR").empty());
    // Ten pauses of one second plus ten runs of polls: over ten seconds, and
    // the flash is (being) erased.
    EXPECT_GE(run.boardTimeNs(), 10000000000LL);
    EXPECT_EQ(m_board.flash(), Bytes(FLASH_CAPACITY, 0xFF));
}

TEST_F(Erase, EraseMessageThatCannotBeSentReleasesLine48AtOnce)
{
    RunSettings settings;
    settings.simulatorOptions = {"--fault", "msg:1:EIO"};
    const RunResult run = write(settings);
    expectFailedRun(run);
    EXPECT_EQ(run.logMessages(), (std::vector<std::string>{"Start erasing the whole DSP Flash... ",
                                                           "SPI message cannot be sent -> ERRNO : 5"}));
    EXPECT_EQ(run.logRecords("ERROR").size(), 1U);
    EXPECT_EQ(run.spiMessages().size(), 1U) << "no polls and no programming";
    const int failed = traceIndex(run, run.spiMessages().front());
    EXPECT_FALSE(releasePauseBetween(run, failed, lastRelease(run)));
    EXPECT_EQ(m_board.flash(), m_original);
}

TEST_F(Erase, FailedStatusReadsCountAsUnsuccessfulWaits)
{
    RunSettings settings;
    settings.simulatorOptions = {"--fault", "msg:2+:EIO"};
    const RunResult run = write(settings);
    expectFailedRun(run);
    EXPECT_EQ(run.spiMessages().size(), 11U) << "the erase and one failed poll per wait";
    EXPECT_EQ(oneSecondPauses(run).size(), 10U);
    EXPECT_EQ(run.logRecords("ERROR", "SPI message cannot be sent -> ERRNO : 5").size(), 10U);
    const std::vector<std::string> messages = run.logMessages();
    ASSERT_EQ(messages.size(), 12U);
    EXPECT_EQ(messages.back(), "Flash is not ready!!! ");
    EXPECT_TRUE(messagesOfKind(run, MessageKind::Program).empty());
}

}  // namespace
