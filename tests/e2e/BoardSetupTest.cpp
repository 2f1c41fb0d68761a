// SPDX-License-Identifier: MIT
// What making the HAL instance does to the board: the SPI device set-up, the
// melody device's cycle, and line 48's set-up on its first use; and how the
// tool goes on when a part of it fails.

#include "E2eSupport.h"

using namespace boardtest;

namespace {

const std::vector<std::string> SETUP_REQUESTS = {"WR_MODE",          "RD_MODE",         "WR_BITS_PER_WORD",
                                                 "RD_BITS_PER_WORD", "WR_MAX_SPEED_HZ", "RD_MAX_SPEED_HZ"};

std::vector<std::string> field(const std::vector<QJsonObject>& events, const char* name)
{
    std::vector<std::string> values;
    for (const QJsonObject& event : events) {
        values.push_back(text(event.value(QLatin1String(name))));
    }
    return values;
}

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

TEST_F(BoardSetup, DeviceMelodyAndLine48AreSetUpInOrder)
{
    // Line 48 left exported by a first run is released before it is exported
    // again.
    expectSuccessfulRun(checkErased());
    const RunResult run = checkErased();
    expectSuccessfulRun(run);
    EXPECT_TRUE(run.logRecords("ERROR").empty()) << run.log;

    const std::vector<QJsonObject> opens = run.events("spi_open");
    ASSERT_EQ(opens.size(), 1U) << "the device is opened once, by the driver's constructor";
    EXPECT_EQ(text(opens[0].value(QStringLiteral("path"))), "/dev/spidev0.0");
    EXPECT_EQ(integer(opens[0].value(QStringLiteral("flags"))) & ~0100000, 02) << "O_RDWR and no other flag";
    const std::string fd = text(opens[0].value(QStringLiteral("fd")));
    const std::vector<QJsonObject> requests = run.events("spi_ioctl");
    EXPECT_EQ(field(requests, "req"), SETUP_REQUESTS);
    EXPECT_EQ(field(requests, "value"), (std::vector<std::string>{"0", "0", "8", "8", "10000000", "10000000"}));
    EXPECT_EQ(field(requests, "fd"), std::vector<std::string>(6, fd));
    EXPECT_EQ(field(run.spiMessages(), "fd"), std::vector<std::string>(512 * 2, fd));
    EXPECT_TRUE(run.events("spi_close").empty()) << "the HAL is never destroyed, so the device stays open";

    // The melody device runs one cycle: type 1, 0, the (zeroed) gap, then
    // 2000 little-endian; START and at once STOP.
    const std::vector<QJsonObject> melody = run.events("melody_ioctl");
    EXPECT_EQ(field(run.events("melody_open"), "path"), std::vector<std::string>{"/dev/mldalm"});
    ASSERT_EQ(field(melody, "req"), (std::vector<std::string>{"TYPE", "START_STOP", "START_STOP"}));
    EXPECT_EQ(field(melody, "bytes"), (std::vector<std::string>{"01000000d0070000", "01", "00"}));
    EXPECT_EQ(findEvent(run, run.indexOf(melody[0]), "sleep"), findEvent(run, run.indexOf(melody[2]), "sleep"));

    // SPI set-up, melody cycle, and only then (on first use) line 48:
    // unexport, export, then its attributes.
    EXPECT_LT(run.indexOf(requests.back()), run.indexOf(run.events("melody_open")[0]));
    const std::vector<QJsonObject> writes = run.events("gpio_write");
    EXPECT_LT(run.indexOf(melody.back()), run.indexOf(writes[0]));
    ASSERT_GE(writes.size(), 4U);
    EXPECT_EQ(field({writes.begin(), writes.begin() + 4}, "path"),
              (std::vector<std::string>{"unexport", "export", "gpio48/active_low", "gpio48/direction"}));
    EXPECT_EQ(field({writes.begin(), writes.begin() + 4}, "result"), std::vector<std::string>(4, "ok"));
}

// A failing part of the set-up is logged and the tool goes on; without the
// SPI device every request fails on the bad descriptor, then the first
// flash transfer, and the operation gives up without a verdict.
struct SetupFault {
    const char* name;
    std::vector<std::string> simulatorOptions;
    const char* spiBusDevice;  // nullptr: not set; "@" stands for the board folder
    bool works;
    std::vector<std::string> errors;
};

const std::vector<std::string> NO_DEVICE = {"SPI_IOC_WR_MODE() failed.",
                                            "SPI_IOC_RD_MODE() failed.",
                                            "SPI_IOC_WR_BITS_PER_WORD() failed.",
                                            "SPI_IOC_RD_BITS_PER_WORD() failed.",
                                            "SPI_IOC_WR_MAX_SPEED_HZ() failed.",
                                            "SPI_IOC_RD_MAX_SPEED_HZ() failed.",
                                            "SPI message cannot be sent -> ERRNO : 9"};

class BoardSetupFault : public BoardSetup, public ::testing::WithParamInterface<SetupFault> {};

TEST_P(BoardSetupFault, IsLoggedAndTheToolGoesOnAsFarAsItCan)
{
    const SetupFault& fault = GetParam();
    RunSettings settings{fault.simulatorOptions, {}};
    std::string device = "/dev/spidev0.0";
    if (fault.spiBusDevice != nullptr) {
        device = fault.spiBusDevice;
        if (device.compare(0, 1, "@") == 0) {
            device = m_board.folder() + device.substr(1);
            settings.simulatorOptions = {"--spidev", device};
        }
        settings.environment = {{"SPI_BUS_DEVICE", device}};
    }
    const RunResult run = checkErased(settings);
    EXPECT_EQ(run.logRecords("ERROR"), fault.errors) << run.log;
    for (const std::string& path : field(run.events("spi_open"), "path")) {
        EXPECT_EQ(path, device);
    }
    if (fault.works) {
        EXPECT_EQ(field(run.events("spi_ioctl"), "req"), SETUP_REQUESTS) << "every request is issued";
        expectSuccessfulRun(run);
        EXPECT_EQ(messagesOfKind(run, MessageKind::Read).size(), 512U);
    } else {
        expectFailedRun(run);
        EXPECT_TRUE(run.logRecords("INFO").empty()) << "no verdict after a failed transfer";
    }
}

const std::vector<std::string> NO_MELODY = {"Melody type cannot be sent -> ERRNO : 9",
                                            "Melody START cannot be sent -> ERRNO : 9",
                                            "Melody STOP cannot be sent -> ERRNO : 9"};

INSTANTIATE_TEST_SUITE_P(
    Faults, BoardSetupFault,
    ::testing::Values(SetupFault{"NoSpiDevice", {"--fault", "no-spidev"}, nullptr, false, NO_DEVICE},
                      SetupFault{"EmptySpiBusDevice", {}, "", false, NO_DEVICE},
                      SetupFault{"OtherSpiBusDevice", {}, "@/spidev1.0", true, {}},
                      SetupFault{
                          "RejectedClock", {"--fault", "setup:WR_MAX_SPEED_HZ:EINVAL"}, nullptr, true, {NO_DEVICE[4]}},
                      SetupFault{"NoMelodyDevice", {"--fault", "no-melody"}, nullptr, true, NO_MELODY}),
    [](const ::testing::TestParamInfo<SetupFault>& row) { return std::string(row.param.name); });

}  // namespace
