// SPDX-License-Identifier: MIT
// The front end: arguments, messages, streams and exit status.

#include "E2eSupport.h"

#include <unistd.h>

using namespace boardtest;

namespace {

const std::string USAGE_LINE = "Usage for platform \"\" :  merivak read|write|check FILENAME \n";
const std::string OPTION_ERROR_LINE = "Option is NOT correct:    merivak read|write|check FILENAME \n";

class CommandLine : public ::testing::Test {
protected:
    SimulatedBoard m_board;
};

TEST_F(CommandLine, WrongArgumentCountPrintsUsageOnStandardOutput)
{
    const std::vector<std::vector<std::string>> cases = {
        {}, {"read"}, {"read", "a.bin", "b.bin"}, {"check", "a.bin", ""}};
    for (const auto& arguments : cases) {
        SCOPED_TRACE(arguments.size());
        const RunResult run = m_board.merivak(arguments);
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.out, USAGE_LINE);
        EXPECT_EQ(run.err, "");
        expectHardwareUntouched(run);
    }
}

TEST_F(CommandLine, OperationWordIsExactAndCaseSensitive)
{
    writeFile(m_board.path("image.bin"), Bytes(16, 0x55));
    for (const char* word : {"Read", "READ", "Write", "CHECK", "erase", "", "read ", "checks"}) {
        SCOPED_TRACE(word);
        const RunResult run = m_board.merivak({word, "image.bin"});
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, OPTION_ERROR_LINE);
        expectHardwareUntouched(run);
    }
}

TEST_F(CommandLine, MissingImageForWriteOrCheckIsReportedWithSuccessStatus)
{
    for (const char* word : {"write", "check"}) {
        SCOPED_TRACE(word);
        const RunResult run = m_board.merivak({word, "no/such/image.bin"});
        EXPECT_EQ(run.status, 0);
        // The name is shown exactly as typed.
        EXPECT_EQ(run.out, "File:    no/such/image.bin      Does NOT exists! \n");
        EXPECT_EQ(run.err, "");
        expectHardwareUntouched(run);
        EXPECT_TRUE(run.events("sleep").empty()) << "no DSP start pause when nothing was done";
    }
}

TEST_F(CommandLine, ReadNeedsNoExistingFile)
{
    const RunResult run = m_board.merivak({"read", "fresh.bin"});
    expectSuccessfulRun(run);
    EXPECT_EQ(readFile(m_board.path("fresh.bin")).size(), FIRMWARE_AREA);
}

// An image that cannot fit the firmware area is refused before the erase, so
// the board never ends up with an erased flash.
TEST_F(CommandLine, OversizedImageIsRefusedBeforeTheFlashIsErased)
{
    const Bytes original = patternBytes(FLASH_CAPACITY, 7);
    m_board.setFlash(original);
    writeFile(m_board.path("big.bin"), Bytes(FIRMWARE_AREA + 1, 0x00));

    const RunResult run = m_board.merivak({"write", "big.bin"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "File:    big.bin      is too large: 131073 bytes, the DSP flash area holds 131072 bytes\n");
    expectHardwareUntouched(run);
    EXPECT_EQ(m_board.flash(), original);
}

TEST_F(CommandLine, SuccessEndsWithTheWaitingLineAndAFiveSecondPause)
{
    m_board.setFlash(Bytes(FLASH_CAPACITY, 0xFF));
    writeFile(m_board.path("erased.bin"), Bytes(300, 0xFF));

    const RunResult run = m_board.merivak({"check", "erased.bin"});
    expectSuccessfulRun(run);
    // The waiting line is the last thing printed, after every log record.
    ASSERT_GE(run.out.size(), 31U);
    EXPECT_EQ(run.out.substr(run.out.size() - 31), "Waiting till DSP is started...\n");
    // The pause comes after the flash work: the DSP is already released.
    const int pause = findEvent(run, 0, "sleep", "us", "5000000");
    EXPECT_GT(pause, lastRelease(run));
}

// A std::exception that escapes an operation is printed on standard error and
// fails the run, with line 48 back at 1 first. Reading a 1 GiB image (or the
// endless /dev/zero) into memory with too little memory available makes the
// allocation throw std::bad_alloc: in the check before any transfer, in the
// write after the erase.
class EscapingException : public ::testing::TestWithParam<std::vector<std::string>> {
protected:
    SimulatedBoard m_board;
};

TEST_P(EscapingException, IsPrintedOnStandardErrorAfterLine48IsReleased)
{
    const std::string huge = m_board.path("huge.bin");
    writeFile(huge, Bytes{});
    ASSERT_EQ(::truncate(huge.c_str(), 1L << 30), 0);
    const std::vector<std::string> arguments = GetParam();

    RunSettings settings;
#if MERIVAK_TEST_ASAN
    // AddressSanitizer needs a large address space; let its allocator refuse
    // big blocks instead.
    settings.environment = {{"ASAN_OPTIONS", "allocator_may_return_null=1:max_allocation_size_mb=256"}};
    const RunResult run = m_board.merivak(arguments, settings);
#else
    const RunResult run = m_board.run(
        {"/bin/sh", "-c",
         std::string("ulimit -v 400000; exec ") + MERIVAK_BINARY + " " + arguments[0] + " " + arguments[1]});
#endif
    EXPECT_EQ(run.status, 1) << run.describe();
    EXPECT_TRUE(run.plainOutLines().empty()) << run.describe();
    ASSERT_GE(run.err.size(), 15U) << run.describe();
    EXPECT_EQ(run.err.substr(run.err.size() - 15), "std::bad_alloc\n") << run.describe();
    const std::vector<QJsonObject> holds = run.gpioWrites("gpio48/value");
    ASSERT_FALSE(holds.empty()) << "the operation had started";
    EXPECT_EQ(text(holds.back().value(QStringLiteral("data"))), "1") << run.describe();
    EXPECT_EQ(run.lineLevels(48).back().second, 1);
}

INSTANTIATE_TEST_SUITE_P(Operations, EscapingException,
                         ::testing::Values(std::vector<std::string>{"check", "huge.bin"},
                                           std::vector<std::string>{"write", "/dev/zero"}),
                         [](const ::testing::TestParamInfo<std::vector<std::string>>& row) {
                             return row.param[0] == "check" ? std::string("CheckOfAHugeFile")
                                                            : std::string("WriteOfDevZero");
                         });

}  // namespace
