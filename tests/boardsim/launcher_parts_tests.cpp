// SPDX-License-Identifier: MIT
// The launcher's option, fault and edge parsing, its state folder checks and
// the summary it builds.
#include "chip_profiles.h"
#include "options.h"
#include "program_check.h"
#include "run_config.h"
#include "signal_injection.h"
#include "state_folder.h"
#include "summary.h"
#include "TempFolder.h"

#include <gtest/gtest.h>

#include <elf.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>

namespace boardsim_test {
namespace {

using boardsim::Options;

bool parse(std::vector<const char*> arguments, Options& options, std::string& error)
{
    arguments.insert(arguments.begin(), "boardsim");
    return boardsim::parseOptions(static_cast<int>(arguments.size()), arguments.data(), options, error);
}

TEST(LauncherOptions, TakesOptionsUpToTheCommand)
{
    Options options;
    std::string error;
    ASSERT_TRUE(parse({"--state", "/tmp/s", "--fault=busy", "--fault", "no-melody", "--timing", "max", "--quiet", "--",
                       "merivak", "--state", "x"},
                      options, error))
        << error;
    EXPECT_EQ(options.stateDir, "/tmp/s");
    EXPECT_EQ(options.faults, (std::vector<std::string>{"busy", "no-melody"}));
    EXPECT_TRUE(options.maxTiming);
    EXPECT_TRUE(options.quiet);
    EXPECT_EQ(options.command, (std::vector<std::string>{"merivak", "--state", "x"}));

    Options bare;
    ASSERT_TRUE(parse({"true"}, bare, error));
    EXPECT_EQ(bare.command, std::vector<std::string>{"true"});
}

TEST(LauncherOptions, RefusesWhatItCannotUse)
{
    const std::vector<std::vector<const char*>> bad = {
        {"--bogus", "--", "true"},    {"--bogus=1", "--", "true"}, {"--state"}, {"--profile", "nonsense", "true"},
        {"--timing", "slow", "true"}, {"--state", "/tmp/x"},       {"--"},      {"--trace=", "true"},
    };
    for (const auto& arguments : bad) {
        Options options;
        std::string error;
        EXPECT_FALSE(parse(arguments, options, error)) << arguments[0];
        EXPECT_FALSE(error.empty());
    }
}

// What each fault does is tested with the model it acts on; here: what the
// parser accepts, and that a refusal names the text.
TEST(LauncherFaults, AcceptsEveryKindAndRefusesMalformedOnes)
{
    for (const char* text : {"msg:3:EIO", "msg:7+:110", "setup:RD_MAX_SPEED_HZ:ENODEV", "no-spidev", "no-melody",
                             "busy", "flip:0x1F:0x80", "flip:7:1:12", "export-refused:223", "export-refused:2:EPERM"}) {
        boardsim::Faults faults{};
        std::string error;
        EXPECT_TRUE(boardsim::parseFault(text, faults, error)) << text << ": " << error;
    }
    for (const char* text :
         {"msg:0:EIO", "msg:1:ENOTANERRNO", "msg:1", "setup:WR_FOO:EIO", "flip:1:0", "flip:x:1", "flip:1:1:0",
          "flip:1:1:2:3", "export-refused:224", "export-refused:48:EBUSY:1", "busy:1", "explode"}) {
        boardsim::Faults faults{};
        std::string error;
        EXPECT_FALSE(boardsim::parseFault(text, faults, error)) << text;
        EXPECT_NE(error.find(text), std::string::npos) << error;
    }
    boardsim::Faults faults{};
    std::string error;
    EXPECT_FALSE(boardsim::parseFault("export-refused:224", faults, error));
    EXPECT_NE(error.find("LINE 0 to 223"), std::string::npos) << error;
    EXPECT_FALSE(boardsim::parseFault("msg:2:EWHAT", faults, error));
    EXPECT_NE(error.find("unknown errno 'EWHAT'"), std::string::npos) << error;
}

TEST(LauncherEdgesAndSignals, ParseLineKindTimeSignalAndMessageCount)
{
    boardsim::EdgeEvent edge{};
    std::string error;
    ASSERT_TRUE(boardsim::parseEdge("2:falling@1.5", edge, error)) << error;
    EXPECT_EQ(edge.line, 2);
    EXPECT_EQ(edge.level, 0);
    EXPECT_EQ(edge.timeNs, 1500000000);
    ASSERT_TRUE(boardsim::parseEdge("143:rising@0.000000001", edge, error));
    EXPECT_EQ(edge.timeNs, 1);
    EXPECT_EQ(edge.level, 1);
    for (const char* text :
         {"2:up@1", "x:rising@1", "2:rising@1.", "2:rising@-1", "2:rising", "300:rising@1", "2:rising@1.0000000001"}) {
        EXPECT_FALSE(boardsim::parseEdge(text, edge, error)) << text;
    }
    boardsim::SignalInjection injection{};
    const std::pair<const char*, boardsim::SignalInjection> valid[] = {
        {"TERM@msg:40", {SIGTERM, 40}},  {"SIGINT@msg:1", {SIGINT, 1}}, {"HUP@msg:7", {SIGHUP, 7}},
        {"SIGQUIT@msg:3", {SIGQUIT, 3}}, {"9@msg:12", {9, 12}},         {"64@msg:2", {64, 2}}};
    for (const auto& [text, expected] : valid) {
        ASSERT_TRUE(boardsim::parseSignalInjection(text, injection, error)) << text << ": " << error;
        EXPECT_EQ(injection.signal, expected.signal) << text;
        EXPECT_EQ(injection.atMessage, expected.atMessage) << text;
    }
    for (const char* text : {"TERM", "TERM@msg:0", "TERM@msg:", "TERM@msg:-3", "TERM@t:1", "BOGUS@msg:1", "0@msg:1",
                             "65@msg:1", "SIG@msg:1", "TERM@msg:1x"}) {
        EXPECT_FALSE(boardsim::parseSignalInjection(text, injection, error)) << text;
    }
}

class StateFolderTest : public ::testing::Test {
protected:
    const boardsim::ChipProfile& profile() { return *boardsim::findChipProfile("default"); }

    // A line folder in the state folder dir, as an earlier run left it.
    void exported(const std::string& dir, const std::string& name, const char* value, const char* direction,
                  const char* activeLow)
    {
        const std::string line = dir + "/gpio/" + name;
        mkdir(line.c_str(), 0755);
        std::ofstream(line + "/value") << value;
        std::ofstream(line + "/direction") << direction;
        std::ofstream(line + "/active_low") << activeLow;
        std::ofstream(line + "/edge") << "none\n";
    }

    testsupport::TempFolder folder{"boardsim-state-test"};
    const std::string root = folder.path();
};

TEST_F(StateFolderTest, MakesAnErasedFlashAndAGpioTreeAndRefusesABrokenFolder)
{
    std::string error;
    const std::string dir = root + "/deep/state";
    ASSERT_TRUE(boardsim::prepareStateFolder(dir, profile(), error)) << error;
    EXPECT_EQ(testsupport::readText(dir + "/flash.bin"), std::string(2 * 1024 * 1024, '\xFF'));
    struct stat info {};
    EXPECT_EQ(stat((dir + "/gpio/export").c_str(), &info), 0);
    EXPECT_EQ(stat((dir + "/gpio/unexport").c_str(), &info), 0);
    // A flash of the wrong size, a file instead of a folder: refused.
    std::ofstream(root + "/flash.bin") << "short";
    EXPECT_FALSE(boardsim::prepareStateFolder(root, profile(), error));
    EXPECT_NE(error.find("broken state folder"), std::string::npos) << error;

    const std::string file = root + "/plain-file";
    std::ofstream(file) << "x";
    EXPECT_FALSE(boardsim::prepareStateFolder(file, profile(), error));
    EXPECT_NE(error.find(file + " is not a folder"), std::string::npos) << error;
}

TEST_F(StateFolderTest, LoadsExportedLinesAndRefusesNonsense)
{
    std::string error;
    ASSERT_TRUE(boardsim::prepareStateFolder(root, profile(), error)) << error;
    exported(root, "gpio48", "1\n", "out\n", "0\n");
    // An exported input keeps the level it shows, through active_low.
    exported(root, "gpio2", "1\n", "in\n", "1\n");
    boardsim::GpioLine lines[boardsim::kGpioLines] = {};
    ASSERT_TRUE(boardsim::loadGpioTree(root, lines, error)) << error;
    EXPECT_EQ(lines[48].exported + lines[48].output + lines[48].outputLevel, 3);
    EXPECT_EQ(lines[2].output, 0);
    EXPECT_EQ(lines[2].externalLevel, 0);
    EXPECT_EQ(lines[2].activeLow, 1);
    exported(root, "gpio48", "1\n", "sideways\n", "0\n");
    EXPECT_FALSE(boardsim::loadGpioTree(root, lines, error));
    EXPECT_NE(error.find("gpio48/direction"), std::string::npos) << error;
    unlink((root + "/gpio/gpio48/direction").c_str());
    EXPECT_FALSE(boardsim::loadGpioTree(root, lines, error));
}

TEST_F(StateFolderTest, SetUpTakesEveryScriptedEdgeItHasRoomForOrNone)
{
    boardsim::Options options;
    options.edges.assign(boardsim::kMaxEdges + 1, "2:rising@1");
    auto block = std::make_unique<boardsim::RunBlock>();
    std::string error;
    EXPECT_FALSE(boardsim::setUpRun(options, root + "/state", {}, *block, error));
    EXPECT_EQ(error, "too many --edge options (at most " + std::to_string(boardsim::kMaxEdges) + ")");
    options.edges.pop_back();
    // An exported input with scripted edges starts at the opposite of its
    // first edge (electrical 0 here), shown through active_low.
    ASSERT_TRUE(boardsim::prepareStateFolder(root + "/state", profile(), error)) << error;
    exported(root + "/state", "gpio2", "0\n", "in\n", "1\n");
    EXPECT_TRUE(boardsim::setUpRun(options, root + "/state", {}, *block, error)) << error;
    EXPECT_EQ(block->config.edgeCount, static_cast<std::uint32_t>(boardsim::kMaxEdges));
    EXPECT_EQ(testsupport::readText(root + "/state/gpio/gpio2/value"), "1\n");
    options.edges = {"2:rising@1", "2:sideways@2"};
    EXPECT_FALSE(boardsim::setUpRun(options, root + "/state", {}, *block, error));
    EXPECT_NE(error.find("2:sideways@2"), std::string::npos) << error;
}

TEST_F(StateFolderTest, ProgramsWithoutAnInterpreterAreRecognised)
{
    EXPECT_EQ(boardsim::findProgram("sh").find('/'), 0U);
    EXPECT_EQ(boardsim::findProgram("no-such-program-anywhere"), "");
    EXPECT_FALSE(boardsim::staticallyLinked(boardsim::findProgram("sh")));  // dynamically linked
    EXPECT_FALSE(boardsim::staticallyLinked("/etc/hostname"));              // not ELF at all

    // An executable ELF header with no program headers: no interpreter.
    Elf64_Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS64;
    header.e_type = ET_EXEC;
    const std::string program = root + "/static-program";
    std::ofstream(program, std::ios::binary).write(reinterpret_cast<const char*>(&header), sizeof header);
    EXPECT_TRUE(boardsim::staticallyLinked(program));
}

TEST(LauncherSummary, ReportsCountersHistoryAndViolations)
{
    auto block = std::make_unique<boardsim::RunBlock>();
    std::memset(block.get(), 0, sizeof(boardsim::RunBlock));
    block->config.profile = *boardsim::findChipProfile("default");
    block->clockNs = 1500000000;
    block->counters.messages = 3;
    block->counters.statusPolls = 2;
    block->lines[48].exported = 1;
    block->history[0] = boardsim::LevelChange{10, 48, 0};
    block->history[1] = boardsim::LevelChange{20, 48, 1};
    block->historyCount = 2;
    block->violations[0] = boardsim::Violation{5, boardsim::kNoLatch, "PP without Write Enable"};
    block->violationCount = 1;
    block->violationsTotal = 1;
    block->soundOn = 1;
    const std::string json = boardsim::summaryJson(*block, 7);
    for (const char* part :
         {"\"status\":7", "\"board_time_ns\":1500000000", "\"lines\":{\"48\":[[10,0],[20,1]]}", "\"exported\":[48]",
          "{\"rule\":\"no-latch\",\"detail\":\"PP without Write Enable\",\"t\":5}", "\"on\":true",
          "\"timing\":\"typ\""}) {
        EXPECT_NE(json.find(part), std::string::npos) << part << " in " << json;
    }
    const std::string text = boardsim::summaryText(*block);
    for (const char* part : {"board time 1.500000 s", "3 messages", "violations: 1 (no-latch 1)"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << " in " << text;
    }
}

}  // namespace
}  // namespace boardsim_test
