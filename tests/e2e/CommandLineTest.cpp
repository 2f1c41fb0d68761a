// SPDX-License-Identifier: MIT
// The front end: command lines that leave the board alone, with their
// messages, streams and exit status, and an exception escaping an operation.

#include "E2eSupport.h"

#include <unistd.h>

#include <utility>

using namespace boardtest;

namespace {

const std::string USAGE = "Usage for platform \"\" :  merivak read|write|check FILENAME \n";
const std::string WRONG_OPERATION = "Option is NOT correct:    merivak read|write|check FILENAME \n";

struct Refusal {
    std::vector<std::string> arguments;
    int status;
    std::string out;
    std::string err;
};

class CommandLine : public ::testing::TestWithParam<Refusal> {
protected:
    void SetUp() override
    {
        writeFile(m_board.path("image.bin"), Bytes(16, 0x55));
        ASSERT_EQ(::symlink("gone.bin", m_board.path("dangling.bin").c_str()), 0);
        // An image that cannot fit the firmware area is refused before the
        // erase, so the board never ends up with an erased flash.
        writeFile(m_board.path("big.bin"), Bytes(FIRMWARE_AREA + 1, 0x00));
    }

    SimulatedBoard m_board;
};

TEST_P(CommandLine, LeavesTheBoardAlone)
{
    const RunResult run = m_board.merivak(GetParam().arguments);
    EXPECT_EQ(run.status, GetParam().status) << run.describe();
    EXPECT_EQ(run.out, GetParam().out);
    EXPECT_EQ(run.err, GetParam().err);
    expectHardwareUntouched(run);
}

// A name that leads to no file is reported as typed, byte for byte, with
// success; a symbolic link counts only when its target exists.
std::string missing(const std::string& name)
{
    return "File:    " + name + "      Does NOT exists! \n";
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, CommandLine,
    ::testing::Values(Refusal{{}, 1, USAGE, ""}, Refusal{{"read"}, 1, USAGE, ""},
                      Refusal{{"read", "a.bin", "b.bin"}, 1, USAGE, ""}, Refusal{{"check", "a.bin", ""}, 1, USAGE, ""},
                      Refusal{{"Read", "image.bin"}, 1, "", WRONG_OPERATION},
                      Refusal{{"CHECK", "image.bin"}, 1, "", WRONG_OPERATION},
                      Refusal{{"erase", "image.bin"}, 1, "", WRONG_OPERATION},
                      Refusal{{"", "image.bin"}, 1, "", WRONG_OPERATION},
                      Refusal{{"read ", "image.bin"}, 1, "", WRONG_OPERATION},
                      Refusal{{"checks", "image.bin"}, 1, "", WRONG_OPERATION},
                      Refusal{{"write", "no/such/image.bin"}, 0, missing("no/such/image.bin"), ""},
                      Refusal{{"check", "dangling.bin"}, 0, missing("dangling.bin"), ""},
                      Refusal{{"write", "dangling.bin"}, 0, missing("dangling.bin"), ""},
                      Refusal{{"write", UTF8_NAME}, 0, missing(UTF8_NAME), ""},
                      Refusal{{"check", LATIN1_NAME}, 0, missing(LATIN1_NAME), ""},
                      Refusal{{"write", "big.bin"},
                              1,
                              "",
                              "File:    big.bin      is too large: 131073 bytes, the DSP flash area holds 131072 "
                              "bytes\n"}));

// A std::exception that escapes an operation is printed on standard error and
// fails the run, with line 48 back at 1 first. Reading a 1 GiB image (or the
// endless /dev/zero) into memory with too little memory available makes the
// allocation throw std::bad_alloc: in the check before any transfer, in the
// write after the erase.
class EscapingException : public ::testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(EscapingException, IsPrintedOnStandardErrorAfterLine48IsReleased)
{
    const SimulatedBoard board;
    const std::string huge = board.path("huge.bin");
    writeFile(huge, Bytes{});
    ASSERT_EQ(::truncate(huge.c_str(), 1L << 30), 0);
    const auto [operation, file] = GetParam();
#if MERIVAK_TEST_ASAN
    // AddressSanitizer needs a large address space; let its allocator refuse
    // big blocks instead.
    const RunResult run = board.merivak(
        {operation, file}, {{}, {{"ASAN_OPTIONS", "allocator_may_return_null=1:max_allocation_size_mb=256"}}});
#else
    const RunResult run = board.run(
        {"/bin/sh", "-c", std::string("ulimit -v 400000; exec ") + MERIVAK_BINARY + " " + operation + " " + file});
#endif
    EXPECT_EQ(run.status, 1) << run.describe();
    EXPECT_TRUE(run.plainOutLines().empty()) << run.describe();
    ASSERT_GE(run.err.size(), 15U) << run.describe();
    EXPECT_EQ(run.err.substr(run.err.size() - 15), "std::bad_alloc\n") << run.describe();
    expectDspHeldOffDuringTransfersAndReleased(run);
}

INSTANTIATE_TEST_SUITE_P(Operations, EscapingException,
                         ::testing::Values(std::make_pair("check", "huge.bin"), std::make_pair("write", "/dev/zero")));

}  // namespace
