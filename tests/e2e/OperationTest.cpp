// SPDX-License-Identifier: MIT
// read, write and check on a board with known content: exit status, log
// records, how far the bus traffic went, line 48, and what the flash and the
// file hold afterwards, for working boards, failing messages and a flash that
// stays busy.

#include "E2eSupport.h"

#include <sys/stat.h>

using namespace boardtest;

namespace {

constexpr std::size_t PAGE = 256;
constexpr std::size_t POLLS_PER_WAIT = 3125;
const std::string POLL = "05/1 ?/1";
constexpr long AREA = static_cast<long>(FIRMWARE_AREA);
constexpr long UNCHANGED = -1;
constexpr long FOLDER = -1;                    // the name is a folder, not a file
constexpr std::int64_t TEN_WAITS = 1 + 31250;  // the erase, then ten runs of 3125 polls
const std::string ERASING = "Start erasing the whole DSP Flash... ";
const std::string NOT_READY = "Flash is not ready!!! ";
const std::string UP_TO_DATE = "Requested DSP FW is UP-TO-DATE";
const std::string NOT_ACTUAL = "Requested DSP FW is NOT actual...";
const std::string SAVED = "Saving the FLASH content....success";
const std::string NOT_SAVED = "Saving the FLASH content....error!!";
const std::string EIO_LOG = "SPI message cannot be sent -> ERRNO : 5";
const std::string ETIMEDOUT_LOG = "SPI message cannot be sent -> ERRNO : 110";

// Failed polls count as waits in vain.
const std::vector<std::string> TEN_FAILED_POLLS = {ERASING, EIO_LOG, EIO_LOG, EIO_LOG, EIO_LOG, EIO_LOG,
                                                   EIO_LOG, EIO_LOG, EIO_LOG, EIO_LOG, EIO_LOG, NOT_READY};

std::string programming(long bytes)
{
    return "Start programming the DSP Flash... " + std::to_string(bytes) + " bytes! ";
}

const std::vector<std::string> PROGRAM_FAILED = {ERASING, programming(AREA), EIO_LOG};
const std::vector<std::string> POLL_FAILED = {ERASING, programming(AREA), EIO_LOG, NOT_READY};
const std::vector<std::string> SLOW_ERASE = {"--profile", "slow-erase"};
const std::vector<std::string> ERASE_NOT_READY = {ERASING, NOT_READY};

std::vector<std::string> fault(const char* fault)
{
    return {"--fault", fault};
}

// Line 48 is released 1 ms after the last transfer, at once after a failure
// other than an erase that waited in vain.
enum End { kDone, kFailed, kFailedAfterPause };

class Operation : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_board.setFlash(m_flash);
        writeFile(m_board.path("out.bin"), m_old);
    }

    // Writes the image (or makes a folder) under file and runs the operation.
    // In options "msg:PK:ERRNO" fails the message that programs page K of a
    // write, "msg:QK:ERRNO" the first poll after it.
    RunResult run(const char* operation, const std::string& file, long imageSize, std::vector<std::string> options)
    {
        if (imageSize == FOLDER) {
            EXPECT_EQ(::mkdir(m_board.path(file).c_str(), 0755), 0);
        } else if (std::string(operation) != "read") {
            writeFile(m_board.path(file), m_image);
        }
        for (std::string& option : options) {
            const std::size_t colon = option.find(':', 4);
            if (option.compare(0, 4, "msg:") == 0 && option.find('+') == std::string::npos) {
                const char page = option[4];
                m_failing = std::stoll(option.substr(page == 'P' || page == 'Q' ? 5 : 4));
                if (page == 'P' || page == 'Q') {
                    m_failing = programMessageIndex(static_cast<std::size_t>(m_failing)) + (page == 'Q' ? 1 : 0);
                }
                m_errno = option.substr(colon + 1);
                option = "msg:" + std::to_string(m_failing) + ":" + m_errno;
            }
        }
        m_busy = options == fault("busy");
        return m_board.merivak({operation, file}, {options, {}});
    }

    void expectEnd(const RunResult& run, End end, const std::vector<std::string>& log, std::int64_t messages) const
    {
        if (end == kDone) {
            expectSuccessfulRun(run);
        } else {
            expectFailedRun(run);
        }
        if (!m_busy) {
            EXPECT_EQ(run.violationsTotal(), 0) << run.describe();
        }
        EXPECT_EQ(run.logRecords(""), log);
        const std::vector<QJsonObject> sent = run.spiMessages();
        if (messages >= 0) {
            EXPECT_EQ(static_cast<std::int64_t>(sent.size()), messages);
        }
        const std::vector<QJsonObject> values = run.gpioWrites("gpio48/value");
        ASSERT_GE(values.size(), 2U);
        const int lastHold = run.indexOf(values.end()[-2]);
        const int from = sent.empty() ? lastHold : std::max(lastHold, run.indexOf(sent.back()));
        EXPECT_EQ(releasePauseBetween(run, from, lastRelease(run)), end != kFailed);
        if (m_failing > 0) {
            ASSERT_EQ(static_cast<std::int64_t>(sent.size()), m_failing) << "nothing is sent after a failure";
            EXPECT_EQ(integer(sent.back().value(QStringLiteral("index"))), m_failing);
            EXPECT_EQ(text(sent.back().value(QStringLiteral("errno"))), m_errno);
        }
    }

    // The erase: Write Enable and Chip Erase under separate chip selects, then
    // polls back to back in runs of 3125, each full run followed by a second's
    // pause; once the chip is ready, line 48 is released 1 ms later, before
    // the next message. Returns the index of the first message after the polls.
    static std::size_t expectErase(const RunResult& run)
    {
        const std::vector<QJsonObject> messages = run.spiMessages();
        EXPECT_EQ(layout(messages.front()), "06/1/cs c7/1");
        std::size_t next = 1;
        while (next < messages.size() && layout(messages[next]) == POLL) {
            ++next;
        }
        std::vector<int> pauses;
        for (const QJsonObject& sleep : run.events("sleep")) {
            if (integer(sleep.value(QStringLiteral("us"))) == 1000000) {
                pauses.push_back(run.indexOf(sleep));
            }
        }
        EXPECT_EQ(pauses.size(), (next - 1) / POLLS_PER_WAIT);
        for (std::size_t k = 0; k < pauses.size(); ++k) {
            const std::size_t lastPoll = (k + 1) * POLLS_PER_WAIT;
            EXPECT_LT(run.indexOf(messages[lastPoll]), pauses[k]);
            EXPECT_TRUE(lastPoll + 1 == messages.size() || run.indexOf(messages[lastPoll + 1]) > pauses[k]);
        }
        if (next < messages.size()) {
            const int release = findEvent(run, run.indexOf(messages[next - 1]), "gpio_write", "data", "1");
            EXPECT_TRUE(releasePauseBetween(run, run.indexOf(messages[next - 1]), release));
            EXPECT_LT(release, run.indexOf(messages[next]));
        }
        return next;
    }

    // From message `first` on, `pages` pages, each followed by one poll or
    // more; page k of a read is "03 <address>/4 ?/256", of a write
    // "06/1/cs 02 <address>/4 <its bytes of the image, erased after it>/256".
    static void expectPages(const RunResult& run, std::size_t first, std::size_t pages, const Bytes* image)
    {
        const std::vector<QJsonObject> messages = run.spiMessages();
        Bytes padded = image != nullptr ? *image : Bytes{};
        padded.resize(pages * PAGE, 0xFF);
        std::size_t page = 0;
        for (std::size_t i = first; i < messages.size(); ++i) {
            if (layout(messages[i]) != POLL) {
                ASSERT_LT(page, pages);
                const auto data = padded.begin() + static_cast<std::ptrdiff_t>(page * PAGE);
                EXPECT_EQ(layout(messages[i]), image != nullptr ? "06/1/cs " + pageAddress(0x02, page) + "/4 " +
                                                                      hex(Bytes(data, data + PAGE)) + "/256"
                                                                : pageAddress(0x03, page) + "/4 ?/256");
                ASSERT_LT(i + 1, messages.size());
                ASSERT_EQ(layout(messages[i + 1]), POLL) << "after page " << page;
                ++page;
            }
        }
        EXPECT_EQ(page, pages);
    }

    SimulatedBoard m_board;
    const Bytes m_flash = patternBytes(FLASH_CAPACITY, 31);
    const Bytes m_old = patternBytes(FIRMWARE_AREA + 5000, 32);
    Bytes m_image;
    std::int64_t m_failing = 0;
    std::string m_errno;
    bool m_busy = false;
};

// A file is written only once the whole area was read.
struct ReadOutcome {
    const char* name;
    std::string file;
    std::vector<std::string> options;
    End end;
    std::vector<std::string> log;
    std::int64_t messages;
};

class Read : public Operation, public ::testing::WithParamInterface<ReadOutcome> {};

TEST_P(Read, SavesTheAreaOnlyWhenAllOfItWasRead)
{
    const ReadOutcome& row = GetParam();
    const RunResult result = run("read", row.file, 0, row.options);
    expectEnd(result, row.end, row.log, row.messages);
    if (row.messages == 1024) {
        expectPages(result, 0, 512, nullptr);
    }
    EXPECT_EQ(m_board.flash(), m_flash);
    const Bytes area(m_flash.begin(), m_flash.begin() + AREA);
    EXPECT_EQ(readFile(m_board.path(row.file)), row.end == kDone ? area : row.file == "out.bin" ? m_old : Bytes{});
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, Read,
    ::testing::Values(
        ReadOutcome{"CutsALongerFile", "out.bin", {}, kDone, {SAVED}, 1024},
        ReadOutcome{"Latin1Name", LATIN1_NAME, {}, kDone, {SAVED}, 1024},
        ReadOutcome{"MissingFolder", "no/out.bin", {}, kFailedAfterPause, {NOT_SAVED}, 1024},
        ReadOutcome{"FirstPageFails", "out.bin", fault("msg:1:ETIMEDOUT"), kFailed, {ETIMEDOUT_LOG}, 1},
        ReadOutcome{"LastPageFails", "out.bin", fault("msg:1023:ETIMEDOUT"), kFailed, {ETIMEDOUT_LOG}, 1023},
        ReadOutcome{"LastPollFails", "out.bin", fault("msg:1024:ETIMEDOUT"), kFailed, {ETIMEDOUT_LOG, NOT_READY}, 1024},
        ReadOutcome{"Busy", "out.bin", fault("busy"), kFailed, {NOT_READY}, 1 + 3125}),
    [](const ::testing::TestParamInfo<ReadOutcome>& row) { return std::string(row.param.name); });

struct WriteOutcome {
    const char* name;
    std::string file;
    long size;
    std::vector<std::string> options;
    End end;
    std::vector<std::string> log;
    long kept;  // image bytes at the start of the flash, erased bytes after them
    std::int64_t messages;
};

class Write : public Operation, public ::testing::WithParamInterface<WriteOutcome> {};

TEST_P(Write, ProgramsThePagesBeforeAnyFailure)
{
    const WriteOutcome& row = GetParam();
    m_image = patternBytes(static_cast<std::size_t>(std::max(row.size, 0L)), 33);
    const RunResult result = run("write", row.file, row.size, row.options);
    expectEnd(result, row.end, row.log, row.messages);
    if (row.kept == UNCHANGED) {
        EXPECT_EQ(m_board.flash(), m_flash);
    } else {
        const auto kept = static_cast<std::size_t>(row.kept);
        Bytes expected(m_image.begin(), m_image.begin() + static_cast<std::ptrdiff_t>(kept));
        expected.resize(FLASH_CAPACITY, 0xFF);
        EXPECT_EQ(m_board.flash(), expected) << "not the programmed pages followed by erased bytes";
        const bool programFailed = row.options.size() == 2 && row.options[1].compare(0, 5, "msg:P") == 0;
        EXPECT_EQ(messagesOfKind(result, MessageKind::Program).size(),
                  (kept + PAGE - 1) / PAGE + (programFailed ? 1 : 0));
    }
    const std::vector<QJsonObject> messages = result.spiMessages();
    if (messages.size() > 1 && text(messages[1].value(QStringLiteral("errno"))) == "null") {
        const std::size_t programming = expectErase(result);
        if (row.end == kDone) {
            expectPages(result, programming, (m_image.size() + PAGE - 1) / PAGE, &m_image);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, Write,
    ::testing::Values(
        WriteOutcome{"Empty", "image.bin", 0, {}, kDone, {ERASING, programming(0)}, 0, -1},
        WriteOutcome{"OneByte", LATIN1_NAME, 1, {}, kDone, {ERASING, programming(1)}, 1, -1},
        WriteOutcome{"OnePage", "image.bin", 256, {}, kDone, {ERASING, programming(256)}, 256, -1},
        WriteOutcome{"PageAndAByte", UTF8_NAME, 257, {}, kDone, {ERASING, programming(257)}, 257, -1},
        WriteOutcome{"WholeArea", "image.bin", AREA, {}, kDone, {ERASING, programming(AREA)}, AREA, -1},
        WriteOutcome{"FirstPageFails", "image.bin", AREA, fault("msg:P0:EIO"), kFailed, PROGRAM_FAILED, 0, -1},
        WriteOutcome{"MiddlePageFails", "image.bin", AREA, fault("msg:P256:EIO"), kFailed, PROGRAM_FAILED, 65536, -1},
        WriteOutcome{"LastPageFails", "image.bin", AREA, fault("msg:P511:EIO"), kFailed, PROGRAM_FAILED, 511 * 256, -1},
        WriteOutcome{"LastPollFails", "image.bin", AREA, fault("msg:Q511:EIO"), kFailed, POLL_FAILED, AREA, -1},
        // The erase runs, then programming fails without a log record.
        WriteOutcome{"ImageIsAFolder", "folder.bin", FOLDER, {}, kFailedAfterPause, {ERASING}, 0, -1},
        WriteOutcome{"EraseFails", "image.bin", 600, fault("msg:1:EIO"), kFailed, {ERASING, EIO_LOG}, UNCHANGED, 1},
        WriteOutcome{"StaysBusy", "image.bin", 600, fault("busy"), kFailedAfterPause, ERASE_NOT_READY, UNCHANGED,
                     TEN_WAITS},
        WriteOutcome{"SlowErase", "image.bin", 600, SLOW_ERASE, kFailedAfterPause, ERASE_NOT_READY, 0, TEN_WAITS},
        WriteOutcome{"PollsFail", "image.bin", 600, fault("msg:2+:EIO"), kFailedAfterPause, TEN_FAILED_POLLS, 0, 11}),
    [](const ::testing::TestParamInfo<WriteOutcome>& row) { return std::string(row.param.name); });

// Up to date when the flash begins with the image (however short), not
// actual when any byte differs as read back, or when the image is longer
// than the area; a name that cannot be opened as a file counts as up to
// date. The whole area is read either way.
struct CheckOutcome {
    const char* name;
    std::string file;
    long size;
    long changedAt;  // the image differs from the flash in this byte
    std::vector<std::string> options;
    End end;
    std::vector<std::string> log;
    std::int64_t messages;
};

class Check : public Operation, public ::testing::WithParamInterface<CheckOutcome> {};

TEST_P(Check, ComparesTheImageWithTheFlash)
{
    const CheckOutcome& row = GetParam();
    m_image.assign(m_flash.begin(), m_flash.begin() + std::max(row.size, 0L));
    if (row.changedAt >= 0) {
        m_image[static_cast<std::size_t>(row.changedAt)] ^= 0x10;
    }
    const RunResult result = run("check", row.file, row.size, row.options);
    expectEnd(result, row.end, row.log, row.messages);
    if (row.messages == 1024 && m_failing == 0) {
        expectPages(result, 0, 512, nullptr);
    }
    EXPECT_EQ(m_board.flash(), m_flash);
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, Check,
    ::testing::Values(
        CheckOutcome{"Same", "image.bin", AREA, -1, {}, kDone, {UP_TO_DATE}, 1024},
        CheckOutcome{"Shorter", LATIN1_NAME, 100, -1, {}, kDone, {UP_TO_DATE}, 1024},
        CheckOutcome{"Empty", UTF8_NAME, 0, -1, {}, kDone, {UP_TO_DATE}, 1024},
        CheckOutcome{"FirstByteChanged", "image.bin", AREA, 0, {}, kFailedAfterPause, {NOT_ACTUAL}, 1024},
        CheckOutcome{"MiddleByteChanged", "image.bin", AREA, 70000, {}, kFailedAfterPause, {NOT_ACTUAL}, 1024},
        CheckOutcome{"LastByteChanged", "image.bin", AREA, AREA - 1, {}, kFailedAfterPause, {NOT_ACTUAL}, 1024},
        CheckOutcome{
            "ReadsBackWrong", "image.bin", AREA, -1, fault("flip:0x1ff00:0x80"), kFailedAfterPause, {NOT_ACTUAL}, 1024},
        CheckOutcome{"LongerThanTheArea", "image.bin", AREA + 1, -1, {}, kFailedAfterPause, {NOT_ACTUAL}, 1024},
        CheckOutcome{"ImageIsAFolder", "folder.bin", FOLDER, -1, {}, kDone, {UP_TO_DATE}, 0},
        CheckOutcome{"FirstPageFails", "image.bin", AREA, -1, fault("msg:1:EIO"), kFailed, {EIO_LOG}, 1},
        CheckOutcome{"LastPageFails", "image.bin", AREA, -1, fault("msg:1023:EIO"), kFailed, {EIO_LOG}, 1023},
        CheckOutcome{
            "LastPollFails", "image.bin", AREA, -1, fault("msg:1024:EIO"), kFailed, {EIO_LOG, NOT_READY}, 1024}),
    [](const ::testing::TestParamInfo<CheckOutcome>& row) { return std::string(row.param.name); });

}  // namespace
