// SPDX-License-Identifier: MIT
// write, check and read one after another on one persistent board, as an
// update script does; also reports the board time each one took against the
// time the 10 MHz bus needs for its bytes alone.

#include "E2eSupport.h"

#include <cstdio>

using namespace boardtest;

namespace {

std::int64_t spiBytes(const RunResult& run)
{
    return integer(run.summary.value(QStringLiteral("spi")).toObject().value(QStringLiteral("bytes")));
}

void report(const char* operation, const RunResult& run)
{
    // 10 MHz: 0.8 microseconds per byte.
    const double busSeconds = static_cast<double>(spiBytes(run)) * 8.0 / 10e6;
    const double boardSeconds = static_cast<double>(run.boardTimeNs()) / 1e9;
    std::printf("%-5s board time %.6f s (%.6f s without the final 5 s pause), %lld SPI bytes, bus time %.6f s\n",
                operation, boardSeconds, boardSeconds - 5.0, static_cast<long long>(spiBytes(run)), busSeconds);
    ::testing::Test::RecordProperty(std::string(operation) + "_board_time_ns", std::to_string(run.boardTimeNs()));
    ::testing::Test::RecordProperty(std::string(operation) + "_spi_bytes", std::to_string(spiBytes(run)));
}

TEST(RoundTrip, WriteThenCheckThenReadGiveBackTheImage)
{
    SimulatedBoard board;
    board.setFlash(patternBytes(FLASH_CAPACITY, 51));
    const Bytes image = patternBytes(FIRMWARE_AREA, 52);
    writeFile(board.path("firmware.bin"), image);

    const RunResult write = board.merivak({"write", "firmware.bin"});
    expectSuccessfulRun(write);
    const RunResult check = board.merivak({"check", "firmware.bin"});
    expectSuccessfulRun(check);
    EXPECT_EQ(check.logMessages(), std::vector<std::string>{"Requested DSP FW is UP-TO-DATE"});
    const RunResult read = board.merivak({"read", "readback.bin"});
    expectSuccessfulRun(read);
    EXPECT_EQ(readFile(board.path("readback.bin")), image);

    // Wire bytes: write = erase (2) + 512 x (1 + 4 + 256) + polls (2 each);
    // check and read = 512 x (4 + 256) + 512 polls.
    EXPECT_EQ(spiBytes(check), 512 * 260 + 512 * 2);
    EXPECT_EQ(spiBytes(read), 512 * 260 + 512 * 2);
    EXPECT_GE(spiBytes(write), 2 + 512 * 261 + 512 * 2);

    report("write", write);
    report("check", check);
    report("read", read);
}

}  // namespace
