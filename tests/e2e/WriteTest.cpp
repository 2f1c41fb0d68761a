// SPDX-License-Identifier: MIT
// "write": the erase followed by programming page by page.

#include "E2eSupport.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

using namespace boardtest;

namespace {

constexpr std::size_t PAGE = 256;

Bytes slice(const Bytes& bytes, std::size_t from, std::size_t length)
{
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                 bytes.begin() + static_cast<std::ptrdiff_t>(from + length));
}

bool allErased(const Bytes& bytes, std::size_t from, std::size_t to)
{
    return std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                       bytes.begin() + static_cast<std::ptrdiff_t>(to), [](std::uint8_t b) { return b == 0xFF; });
}

class Write : public ::testing::Test {
protected:
    void SetUp() override { m_board.setFlash(patternBytes(FLASH_CAPACITY, 21)); }

    RunResult write(const Bytes& image, const RunSettings& settings = {}) const
    {
        writeFile(m_board.path("image.bin"), image);
        return m_board.merivak({"write", "image.bin"}, settings);
    }

    SimulatedBoard m_board;
};

class WriteOfSize : public Write, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(WriteOfSize, FlashEndsEqualToTheImage)
{
    const std::size_t size = GetParam();
    const Bytes image = patternBytes(size, 22);
    const RunResult run = write(image);
    expectSuccessfulRun(run);

    const std::size_t pages = (size + PAGE - 1) / PAGE;
    EXPECT_EQ(messagesOfKind(run, MessageKind::Program).size(), pages);
    const Bytes flash = m_board.flash();
    EXPECT_TRUE(std::equal(image.begin(), image.end(), flash.begin())) << "flash differs from the image";
    // Everything past the image is erased, the rest of a partial last page included.
    EXPECT_TRUE(allErased(flash, size, flash.size()));
    EXPECT_EQ(run.logRecords("INFO", "Start programming"),
              std::vector<std::string>{"Start programming the DSP Flash... " + std::to_string(size) + " bytes! "});
    EXPECT_TRUE(run.logRecords("ERROR").empty()) << run.log;
}

INSTANTIATE_TEST_SUITE_P(Sizes, WriteOfSize, ::testing::Values(0, 1, 256, 257, 131072),
                         [](const ::testing::TestParamInfo<std::size_t>& param) {
                             return "Bytes" + std::to_string(param.param);
                         });

TEST_F(Write, EveryPageIsOneMessageWithItsOwnWriteEnableAndAddress)
{
    const Bytes image = patternBytes(FIRMWARE_AREA, 23);
    const RunResult run = write(image);
    expectSuccessfulRun(run);

    const std::vector<QJsonObject> programs = messagesOfKind(run, MessageKind::Program);
    ASSERT_EQ(programs.size(), 512U);
    for (std::size_t page = 0; page < programs.size(); ++page) {
        const std::vector<Record> r = records(programs[page]);
        ASSERT_EQ(r.size(), 3U);
        EXPECT_EQ(integer(programs[page].value(QStringLiteral("n"))), 3);
        EXPECT_EQ(r[0].tx, "06");
        EXPECT_EQ(r[0].len, 1);
        EXPECT_EQ(r[0].csChange, 1) << "Write Enable under a chip select of its own";
        const std::uint32_t address = static_cast<std::uint32_t>(page * PAGE);
        EXPECT_EQ(r[1].tx, hex({0x02, static_cast<std::uint8_t>(address >> 16), static_cast<std::uint8_t>(address >> 8),
                                static_cast<std::uint8_t>(address)}))
            << "page " << page;
        EXPECT_EQ(r[1].len, 4);
        EXPECT_EQ(r[1].csChange, 0);
        EXPECT_EQ(r[2].tx, hex(slice(image, page * PAGE, PAGE))) << "page " << page;
        EXPECT_EQ(r[2].len, 256);
        EXPECT_EQ(r[2].csChange, 0);
        for (const Record& record : r) {
            EXPECT_FALSE(record.rx);
            EXPECT_EQ(record.speedHz, 0);
            EXPECT_EQ(record.delayUsecs, 0);
            EXPECT_EQ(record.bitsPerWord, 0);
        }
    }
    // The pages that cross address bytes.
    EXPECT_EQ(records(programs[0])[1].tx, "02000000");
    EXPECT_EQ(records(programs[256])[1].tx, "02010000");
    EXPECT_EQ(records(programs[511])[1].tx, "0201ff00");

    // Each page is followed by a readiness poll before the next page.
    const std::vector<QJsonObject> messages = run.spiMessages();
    for (std::size_t i = 0; i + 1 < messages.size(); ++i) {
        if (kindOf(messages[i]) == MessageKind::Program) {
            EXPECT_EQ(kindOf(messages[i + 1]), MessageKind::Status) << "message " << i;
        }
    }
    EXPECT_EQ(kindOf(messages.back()), MessageKind::Status);
    // 1 ms after the last poll, line 48 is released.
    EXPECT_TRUE(releasePauseBetween(run, traceIndex(run, messages.back()), lastRelease(run)));
}

TEST_F(Write, PartialLastPageIsPaddedWithErasedBytes)
{
    const Bytes image = patternBytes(257, 24);
    const RunResult run = write(image);
    expectSuccessfulRun(run);
    const std::vector<QJsonObject> programs = messagesOfKind(run, MessageKind::Program);
    ASSERT_EQ(programs.size(), 2U);
    Bytes expected = {image[256]};
    expected.resize(PAGE, 0xFF);
    EXPECT_EQ(records(programs[1])[2].tx, hex(expected));
}

// A reference run tells which message programs page k; the same write on a
// board with the same flash is deterministic in virtual time.
class WriteFailure : public Write {
protected:
    void SetUp() override
    {
        Write::SetUp();
        m_image = patternBytes(FIRMWARE_AREA, 25);
        SimulatedBoard reference;
        reference.setFlash(m_board.flash());
        writeFile(reference.path("image.bin"), m_image);
        const RunResult run = reference.merivak({"write", "image.bin"});
        ASSERT_EQ(run.status, 0) << run.describe();
        for (const QJsonObject& message : messagesOfKind(run, MessageKind::Program)) {
            m_programIndex.push_back(integer(message.value(QStringLiteral("index"))));
        }
        ASSERT_EQ(m_programIndex.size(), 512U);
    }

    // Programs until page `page` fails (its message, or the poll after it).
    void expectStopsAtPage(std::size_t page, bool pollFails)
    {
        SCOPED_TRACE("page " + std::to_string(page) + (pollFails ? ", poll" : ", program"));
        const std::int64_t failing = m_programIndex[page] + (pollFails ? 1 : 0);
        RunSettings settings;
        settings.simulatorOptions = {"--fault", "msg:" + std::to_string(failing) + ":EIO"};
        const RunResult run = write(m_image, settings);
        expectFailedRun(run);
        EXPECT_EQ(run.violationsTotal(), 0) << run.describe();

        const std::vector<QJsonObject> programs = messagesOfKind(run, MessageKind::Program);
        ASSERT_EQ(programs.size(), page + 1) << "no page after the failing one is sent";
        const Bytes flash = m_board.flash();
        const std::size_t programmed = pollFails ? page + 1 : page;
        EXPECT_TRUE(std::equal(m_image.begin(), m_image.begin() + static_cast<std::ptrdiff_t>(programmed * PAGE),
                               flash.begin()))
            << "pages before the failure stay programmed";
        EXPECT_TRUE(allErased(flash, programmed * PAGE, flash.size()));

        std::vector<std::string> expectedLog = {"Start erasing the whole DSP Flash... ",
                                                "Start programming the DSP Flash... 131072 bytes! ",
                                                "SPI message cannot be sent -> ERRNO : 5"};
        if (pollFails) {
            expectedLog.push_back("Flash is not ready!!! ");
        }
        EXPECT_EQ(run.logMessages(), expectedLog);
        // Released at once: no 1 ms pause after the failing message.
        const QJsonObject& failed = run.spiMessages().back();
        EXPECT_EQ(integer(failed.value(QStringLiteral("index"))), failing);
        EXPECT_EQ(text(failed.value(QStringLiteral("errno"))), "EIO");
        EXPECT_FALSE(releasePauseBetween(run, traceIndex(run, failed), lastRelease(run)));
    }

    Bytes m_image;
    std::vector<std::int64_t> m_programIndex;
};

class WriteFailureAt : public WriteFailure, public ::testing::WithParamInterface<std::pair<std::size_t, bool>> {};

TEST_P(WriteFailureAt, StopsAtThatPage)
{
    expectStopsAtPage(GetParam().first, GetParam().second);
}

// (page, whether the poll after it fails rather than its program message)
INSTANTIATE_TEST_SUITE_P(Positions, WriteFailureAt,
                         ::testing::Values(std::make_pair(std::size_t{0}, false),
                                           std::make_pair(std::size_t{256}, false),
                                           std::make_pair(std::size_t{511}, false),
                                           std::make_pair(std::size_t{511}, true)));

// A name that exists but cannot be opened as a file (a folder): the erase
// runs, then programming fails without a log record of its own, after the
// 1 ms pause.
TEST_F(Write, ImageThatCannotBeOpenedFailsAfterTheErase)
{
    ASSERT_EQ(::mkdir(m_board.path("folder.bin").c_str(), 0755), 0);
    const RunResult run = m_board.merivak({"write", "folder.bin"});
    expectFailedRun(run);
    EXPECT_EQ(run.logMessages(), std::vector<std::string>{"Start erasing the whole DSP Flash... "});
    EXPECT_TRUE(messagesOfKind(run, MessageKind::Program).empty());
    const std::vector<QJsonObject> values = run.gpioWrites("gpio48/value");
    ASSERT_EQ(values.size(), 4U) << "0/1 around the erase, then 0/1 around the programming";
    EXPECT_TRUE(releasePauseBetween(run, traceIndex(run, values[2]), traceIndex(run, values[3])));
    EXPECT_EQ(m_board.flash(), Bytes(FLASH_CAPACITY, 0xFF));
}

}  // namespace
