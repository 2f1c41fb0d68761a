// SPDX-License-Identifier: MIT
// Runs the device models in the test process: a run block and a state folder
// of its own per test, set up as the launcher does, and a simulator attached
// to them. Descriptors and calls go straight to the simulator (no preload).
#pragma once

#include "options.h"
#include "run_file.h"
#include "simulator.h"
#include "TempFolder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/spi/spidev.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace boardsim_test {

// One record of an SPI message, as a test writes it.
struct Record {
    std::vector<std::uint8_t> tx;  // empty: no tx buffer
    std::uint32_t rxLength = 0;    // 0: no rx buffer
    bool csChange = false;
    std::uint32_t length = 0;  // 0: tx.size() or rxLength
    std::uint32_t speedHz = 0;
    std::uint16_t delayUsecs = 0;
    std::uint8_t txNbits = 0;
    std::uint8_t rxNbits = 0;
    std::uint8_t bitsPerWord = 0;
};

Record send(std::vector<std::uint8_t> bytes, bool csChange = false);
Record receive(std::uint32_t length);
std::vector<std::uint8_t> address24(std::uint8_t opcode, std::uint32_t address);

struct MessageResult {
    int result = 0;                             // -errno on failure
    std::vector<std::vector<std::uint8_t>> rx;  // one per record with rxLength
};

class SimFixture : public ::testing::Test {
protected:
    void SetUp() override { start(); }

    // Sets up a run with the launcher's options, with a fresh board and
    // state folder each time.
    void start(const boardsim::Options& options = boardsim::Options());

    boardsim::Simulator& sim() { return *m_simulator; }
    boardsim::RunBlock& run() { return m_runFile->block(); }
    std::uint8_t* flash() { return m_simulator->board().flash(); }
    const std::string& stateDir() const { return m_stateDir; }
    std::int64_t now() { return run().clockNs; }

    // The calls through the simulator: their result, or -errno on failure.
    int open(const char* path, int flags);
    void close(int fd);
    ssize_t writeText(int fd, const std::string& text);
    std::string readText(int fd, std::size_t count = 64);  // "error N" on failure
    int ioctl(int fd, unsigned long request, void* argument);
    // One open/write/close of a GPIO path: 0 or the errno.
    int store(const std::string& path, const std::string& text);
    std::string show(const std::string& path);

    // The flash through spidev messages.
    int openSpi() { return open("/dev/spidev0.0", O_RDWR); }
    MessageResult message(int fd, const std::vector<Record>& records);
    std::uint8_t readStatus(int fd);
    void writeEnable(int fd) { EXPECT_EQ(message(fd, {send({0x06})}).result, 1); }
    std::vector<std::uint8_t> readData(int fd, std::uint32_t address, std::uint32_t length);
    void waitReady(int fd);

    // The rules of the violations reported so far, in order.
    std::vector<std::string> violationRules();

private:
    testsupport::TempFolder m_root{"boardsim-test"};
    int m_runs = 0;
    std::string m_stateDir;
    std::unique_ptr<boardsim::RunFile> m_runFile;
    std::unique_ptr<boardsim::Simulator> m_simulator;
};

// The flash and the bus: every test starts with a run and the SPI node open
// in fd; line 48 is held at 0, as the tool holds it around flash work, so
// that a test sees only its own rule violations.
class SpiFixture : public SimFixture {
protected:
    void SetUp() override { startWith(boardsim::Options()); }

    // A fresh run with these options.
    void startWith(const boardsim::Options& options, bool holdDsp = true);

    int fd = -1;
};

}  // namespace boardsim_test
