// SPDX-License-Identifier: MIT
// What making the HAL instance does to the board: the SPI device set-up, the
// melody device's cycle, and line 48's set-up on its first use.

#include "E2eSupport.h"

using namespace boardtest;

namespace {

const std::vector<std::string> SETUP_REQUESTS = {"WR_MODE",          "RD_MODE",         "WR_BITS_PER_WORD",
                                                 "RD_BITS_PER_WORD", "WR_MAX_SPEED_HZ", "RD_MAX_SPEED_HZ"};
const std::vector<std::string> SETUP_FAILURES = {
    "SPI_IOC_WR_MODE() failed.",          "SPI_IOC_RD_MODE() failed.",         "SPI_IOC_WR_BITS_PER_WORD() failed.",
    "SPI_IOC_RD_BITS_PER_WORD() failed.", "SPI_IOC_WR_MAX_SPEED_HZ() failed.", "SPI_IOC_RD_MAX_SPEED_HZ() failed."};

class BoardSetup : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_board.setFlash(Bytes(FLASH_CAPACITY, 0xFF));
        writeFile(m_board.path("erased.bin"), Bytes(256, 0xFF));
    }

    // A run that succeeds on a working board: check an erased image.
    RunResult checkErased(const RunSettings& settings = {}) const
    {
        return m_board.merivak({"check", "erased.bin"}, settings);
    }

    SimulatedBoard m_board;
};

TEST_F(BoardSetup, DefaultDeviceIsOpenedOnceAndConfigured)
{
    const RunResult run = checkErased();
    expectSuccessfulRun(run);

    const std::vector<QJsonObject> opens = run.events("spi_open");
    ASSERT_EQ(opens.size(), 1U) << "the device is opened once, by the driver's constructor";
    EXPECT_EQ(text(opens[0].value(QStringLiteral("path"))), "/dev/spidev0.0");
    EXPECT_EQ(integer(opens[0].value(QStringLiteral("flags"))) & 03, 02) << "O_RDWR";
    EXPECT_EQ(integer(opens[0].value(QStringLiteral("flags"))) & ~03 & ~0100000, 0) << "no other flags";
    const std::int64_t fd = integer(opens[0].value(QStringLiteral("fd")));

    const std::vector<QJsonObject> requests = run.events("spi_ioctl");
    ASSERT_EQ(requests.size(), SETUP_REQUESTS.size());
    const std::vector<std::int64_t> values = {0, 0, 8, 8, 10000000, 10000000};
    for (std::size_t i = 0; i < requests.size(); ++i) {
        SCOPED_TRACE(SETUP_REQUESTS[i]);
        EXPECT_EQ(text(requests[i].value(QStringLiteral("req"))), SETUP_REQUESTS[i]);
        EXPECT_EQ(integer(requests[i].value(QStringLiteral("value"))), values[i]);
        EXPECT_EQ(integer(requests[i].value(QStringLiteral("result"))), 0);
        EXPECT_EQ(integer(requests[i].value(QStringLiteral("fd"))), fd);
    }
    // The set-up happens before any flash traffic.
    EXPECT_LT(traceIndex(run, requests.back()), traceIndex(run, run.spiMessages().front()));
    for (const QJsonObject& message : run.spiMessages()) {
        EXPECT_EQ(integer(message.value(QStringLiteral("fd"))), fd);
    }
    EXPECT_TRUE(run.logRecords("ERROR").empty()) << run.log;
    EXPECT_TRUE(run.events("spi_close").empty()) << "the HAL is never destroyed, so the device stays open";
}

TEST_F(BoardSetup, SpiBusDeviceNamesAnotherNode)
{
    const std::string other = m_board.path("spidev1.0");
    RunSettings settings;
    settings.simulatorOptions = {"--spidev", other};
    settings.environment = {{"SPI_BUS_DEVICE", other}};

    const RunResult run = checkErased(settings);
    expectSuccessfulRun(run);
    const std::vector<QJsonObject> opens = run.events("spi_open");
    ASSERT_EQ(opens.size(), 1U);
    EXPECT_EQ(text(opens[0].value(QStringLiteral("path"))), other);
    EXPECT_EQ(messagesOfKind(run, MessageKind::Read).size(), 512U);
}

// Every request fails on the bad descriptor and is logged in turn; the first
// flash transfer then fails and the operation gives up.
void expectSixSetupFailuresThenBadDescriptor(const RunResult& run)
{
    EXPECT_EQ(run.logRecords("ERROR", "SPI_IOC_"), SETUP_FAILURES) << run.log;
    EXPECT_EQ(run.logRecords("ERROR", "SPI message cannot be sent -> "),
              std::vector<std::string>{"SPI message cannot be sent -> ERRNO : 9"});
    expectFailedRun(run);
}

TEST_F(BoardSetup, EmptySpiBusDeviceIsUsedAsThePath)
{
    RunSettings settings;
    settings.environment = {{"SPI_BUS_DEVICE", ""}};
    const RunResult run = m_board.merivak({"read", "out.bin"}, settings);
    expectSixSetupFailuresThenBadDescriptor(run);
    EXPECT_FALSE(fileExists(m_board.path("out.bin")));
    for (const QJsonObject& open : run.events("spi_open")) {
        EXPECT_NE(text(open.value(QStringLiteral("path"))), "/dev/spidev0.0");
    }
}

TEST_F(BoardSetup, MissingDeviceNodeIsLoggedAndTheToolStillRuns)
{
    RunSettings settings;
    settings.simulatorOptions = {"--fault", "no-spidev"};
    const RunResult run = checkErased(settings);
    expectSixSetupFailuresThenBadDescriptor(run);
    EXPECT_TRUE(run.logRecords("INFO", "Requested DSP FW").empty()) << "no verdict after a failed transfer";
}

TEST_F(BoardSetup, RejectedRequestIsLoggedAndTheOthersAreStillIssued)
{
    RunSettings settings;
    settings.simulatorOptions = {"--fault", "setup:WR_MAX_SPEED_HZ:EINVAL"};
    const RunResult run = checkErased(settings);
    // The device keeps the clock it had and the tool works on.
    expectSuccessfulRun(run);
    EXPECT_EQ(run.logRecords("ERROR"), std::vector<std::string>{"SPI_IOC_WR_MAX_SPEED_HZ() failed."});
    std::vector<std::string> issued;
    for (const QJsonObject& request : run.events("spi_ioctl")) {
        issued.push_back(text(request.value(QStringLiteral("req"))));
    }
    EXPECT_EQ(issued, SETUP_REQUESTS);
}

TEST_F(BoardSetup, MelodyDeviceRunsOneCycleWithoutPause)
{
    const RunResult run = checkErased();
    expectSuccessfulRun(run);

    const std::vector<QJsonObject> opens = run.events("melody_open");
    ASSERT_EQ(opens.size(), 1U);
    EXPECT_EQ(text(opens[0].value(QStringLiteral("path"))), "/dev/mldalm");
    const std::vector<QJsonObject> requests = run.events("melody_ioctl");
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_EQ(text(requests[0].value(QStringLiteral("req"))), "TYPE");
    EXPECT_EQ(integer(requests[0].value(QStringLiteral("request"))), 0x40086d00);
    // 1, 0, the (zeroed) gap, then 2000 little-endian.
    EXPECT_EQ(text(requests[0].value(QStringLiteral("bytes"))), "01000000d0070000");
    EXPECT_EQ(text(requests[1].value(QStringLiteral("req"))), "START_STOP");
    EXPECT_EQ(integer(requests[1].value(QStringLiteral("request"))), 0x40016d01);
    EXPECT_EQ(text(requests[1].value(QStringLiteral("bytes"))), "01");
    EXPECT_EQ(text(requests[2].value(QStringLiteral("req"))), "START_STOP");
    EXPECT_EQ(text(requests[2].value(QStringLiteral("bytes"))), "00");
    for (const QJsonObject& request : requests) {
        EXPECT_EQ(integer(request.value(QStringLiteral("result"))), 0);
    }
    ASSERT_EQ(run.events("melody_close").size(), 1U);

    // START is followed at once by STOP: no sleep in between.
    const int start = traceIndex(run, requests[1]);
    const int stop = traceIndex(run, requests[2]);
    EXPECT_EQ(findEvent(run, start, "sleep") == -1 || findEvent(run, start, "sleep") > stop, true);
    EXPECT_EQ(integer(requests[1].value(QStringLiteral("t"))), integer(requests[2].value(QStringLiteral("t"))));

    // Order of the HAL's construction: SPI set-up, melody cycle, and only
    // then (on first use) line 48.
    EXPECT_LT(traceIndex(run, run.events("spi_ioctl").back()), traceIndex(run, opens[0]));
    EXPECT_LT(traceIndex(run, run.events("melody_close").front()), traceIndex(run, run.events("gpio_write").front()));
}

TEST_F(BoardSetup, MissingMelodyDeviceIsLoggedAndTheToolGoesOn)
{
    RunSettings settings;
    settings.simulatorOptions = {"--fault", "no-melody"};
    const RunResult run = checkErased(settings);
    expectSuccessfulRun(run);
    const std::vector<std::string> expected = {"Melody type cannot be sent -> ERRNO : 9",
                                               "Melody START cannot be sent -> ERRNO : 9",
                                               "Melody STOP cannot be sent -> ERRNO : 9"};
    EXPECT_EQ(run.logRecords("ERROR"), expected) << run.log;
}

TEST_F(BoardSetup, Line48LeftExportedByAnEarlierRunIsReleasedFirst)
{
    expectSuccessfulRun(checkErased());
    const RunResult run = checkErased();
    expectSuccessfulRun(run);
    const std::vector<QJsonObject> writes = run.events("gpio_write");
    ASSERT_GE(writes.size(), 2U);
    EXPECT_EQ(text(writes[0].value(QStringLiteral("path"))), "unexport");
    EXPECT_EQ(text(writes[0].value(QStringLiteral("result"))), "ok");
    EXPECT_EQ(text(writes[1].value(QStringLiteral("path"))), "export");
    EXPECT_EQ(text(writes[1].value(QStringLiteral("result"))), "ok");
}

}  // namespace
