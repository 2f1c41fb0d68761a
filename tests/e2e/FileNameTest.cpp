// SPDX-License-Identifier: MIT
// File names reach the file system byte for byte as typed, whatever their
// encoding, and existence follows symbolic links.

#include "E2eSupport.h"

#include <unistd.h>

#include <filesystem>
#include <string>
#include <tuple>

using namespace boardtest;

namespace {

const std::string UTF8_NAME = "caf\xc3\xa9.bin";  // "café.bin" in UTF-8
const std::string LATIN1_NAME = "caf\xe9.bin";    // "café.bin" in Latin-1

class TypedName : public ::testing::TestWithParam<std::tuple<std::string, std::string>> {
protected:
    // Names of the files in the folder the tool runs in.
    std::vector<std::string> namesInFolder() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_board.folder())) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

    SimulatedBoard m_board;
};

TEST_P(TypedName, ReachesTheFileSystemUnchanged)
{
    const auto& [operation, name] = GetParam();
    const Bytes image = patternBytes(700, 51);
    Bytes flash = image;
    flash.resize(FLASH_CAPACITY, 0xFF);
    if (operation == "read") {
        m_board.setFlash(flash);
    } else {
        writeFile(m_board.path(name), image);
        if (operation == "check") {
            m_board.setFlash(flash);
        }
    }
    const std::vector<std::string> before = namesInFolder();

    const RunResult run = m_board.merivak({operation, name});

    expectSuccessfulRun(run);
    if (operation == "read") {
        EXPECT_EQ(readFile(m_board.path(name)), Bytes(flash.begin(), flash.begin() + FIRMWARE_AREA));
        EXPECT_EQ(namesInFolder().size(), before.size() + 1) << "one file made, under the name as typed";
    } else if (operation == "write") {
        EXPECT_EQ(m_board.flash(), flash);
    } else {
        EXPECT_EQ(run.logRecords("INFO", "Requested DSP FW is UP-TO-DATE").size(), 1U) << run.describe();
    }
}

INSTANTIATE_TEST_SUITE_P(Encodings, TypedName,
                         ::testing::Combine(::testing::Values("read", "write", "check"),
                                            ::testing::Values(UTF8_NAME, LATIN1_NAME)),
                         [](const ::testing::TestParamInfo<std::tuple<std::string, std::string>>& row) {
                             return std::get<0>(row.param) + (std::get<1>(row.param) == UTF8_NAME ? "Utf8" : "Latin1");
                         });

// A name that leads to no file: nothing exists there, so the tool says so
// (with the name as typed) and leaves the hardware alone.
class NoFileBehindTheName : public ::testing::TestWithParam<std::tuple<std::string, std::string>> {
protected:
    SimulatedBoard m_board;
};

TEST_P(NoFileBehindTheName, DoesNotExistAndTheHardwareIsLeftAlone)
{
    const auto& [operation, name] = GetParam();
    if (name == "dangling.bin") {
        ASSERT_EQ(::symlink("gone.bin", m_board.path(name).c_str()), 0);
    }

    const RunResult run = m_board.merivak({operation, name});

    EXPECT_EQ(run.status, 0) << run.describe();
    EXPECT_EQ(run.out, "File:    " + name + "      Does NOT exists! \n");
    EXPECT_EQ(run.err, "");
    expectHardwareUntouched(run);
}

INSTANTIATE_TEST_SUITE_P(Names, NoFileBehindTheName,
                         ::testing::Values(std::make_tuple("write", "dangling.bin"),
                                           std::make_tuple("check", "dangling.bin"),
                                           std::make_tuple("write", UTF8_NAME), std::make_tuple("check", LATIN1_NAME)),
                         [](const ::testing::TestParamInfo<std::tuple<std::string, std::string>>& row) {
                             const std::string& name = std::get<1>(row.param);
                             return std::get<0>(row.param) + (name == "dangling.bin" ? "DanglingLink"
                                                              : name == UTF8_NAME    ? "Utf8"
                                                                                     : "Latin1");
                         });

}  // namespace
