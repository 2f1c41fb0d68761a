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

// The verdict over the firmware area: an image is up to date when the flash
// begins with it (however short), not actual when any byte differs as read
// back, or when it is longer than the area. The whole area is read either
// way, and the flash is left as it was.
struct Verdict {
    const char* name;
    std::size_t length;
    long changedAt;     // -1: the image is the flash's own bytes
    const char* fault;  // simulator fault, or nullptr
    bool upToDate;
};

class CheckVerdict : public Check, public ::testing::WithParamInterface<Verdict> {};

TEST_P(CheckVerdict, ComparesTheImageWithTheFlash)
{
    const Verdict& verdict = GetParam();
    Bytes image = flashPrefix(verdict.length);
    if (verdict.changedAt >= 0) {
        image[static_cast<std::size_t>(verdict.changedAt)] ^= 0x10;
    }
    RunSettings settings;
    if (verdict.fault != nullptr) {
        settings.simulatorOptions = {"--fault", verdict.fault};
    }
    const RunResult run = check(image, settings);
    if (verdict.upToDate) {
        expectSuccessfulRun(run);
        EXPECT_EQ(messagesOfKind(run, MessageKind::Read).size(), 512U);
    } else {
        expectFailedRun(run);
    }
    EXPECT_EQ(run.violationsTotal(), 0);
    EXPECT_EQ(run.logMessages(), std::vector<std::string>{verdict.upToDate ? UP_TO_DATE : NOT_ACTUAL});
    EXPECT_EQ(m_board.flash(), m_flash);
}

INSTANTIATE_TEST_SUITE_P(Images, CheckVerdict,
                         ::testing::Values(Verdict{"Same", FIRMWARE_AREA, -1, nullptr, true},
                                           Verdict{"Shorter", 100, -1, nullptr, true},
                                           Verdict{"Empty", 0, -1, nullptr, true},
                                           Verdict{"FirstByteChanged", FIRMWARE_AREA, 0, nullptr, false},
                                           Verdict{"MiddleByteChanged", FIRMWARE_AREA, 70000, nullptr, false},
                                           Verdict{"LastByteChanged", FIRMWARE_AREA, FIRMWARE_AREA - 1, nullptr, false},
                                           Verdict{"ReadsBackWrong", FIRMWARE_AREA, -1, "flip:0x1ff00:0x80", false},
                                           Verdict{"LongerThanTheArea", FIRMWARE_AREA + 1, -1, nullptr, false}),
                         [](const ::testing::TestParamInfo<Verdict>& param) { return std::string(param.param.name); });

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
