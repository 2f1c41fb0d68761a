// SPDX-License-Identifier: MIT
// The fleet path offline: an artifact packed by merivak-mender-artifact,
// installed by Debian's mender client in standalone mode, which runs the
// shipped merivak-dsp module unmodified; the module runs merivak-update
// under the board simulator (MERIVAK_UPDATE, which Mender passes on).
//
// Mender works in fixed system paths, so this needs root and the mender
// packages; it skips with its reason otherwise. What it creates there it
// removes afterwards, and it leaves alone a machine where Mender is in use.

#include "E2eSupport.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

using namespace boardtest;
namespace fs = std::filesystem;

namespace {

const fs::path kModule = "/usr/share/mender/modules/v3/merivak-dsp";
const fs::path kData = "/data";
const fs::path kMenderData = "/data/mender";
const fs::path kArtifactInfo = "/etc/mender/artifact_info";

std::string whyMenderCannotRun()
{
    if (::geteuid() != 0) {
        return "the mender client works in system paths and needs root";
    }
    if (!fs::exists("/usr/bin/mender") || !fs::exists("/usr/bin/mender-artifact")) {
        return "mender-client and mender-artifact are not installed (apt-get install mender-client mender-artifact)";
    }
    if (fs::exists(kData) || fs::exists(kArtifactInfo) || fs::exists(kModule)) {
        return "Mender is set up on this machine (/data, /etc/mender/artifact_info or the module exist); "
               "not touching it";
    }
    return "";
}

class Mender : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string why = whyMenderCannotRun();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        m_madeSystemPaths = true;
        fs::create_directories(kMenderData);
        writeText(kMenderData / "device_type", "device_type=merivak-test\n");
        writeText(kArtifactInfo, "artifact_name=merivak-test-base\n");
        fs::copy_file(MERIVAK_MENDER_MODULE, kModule);

        m_old = patternBytes(FIRMWARE_AREA, 11);
        m_new = patternBytes(FIRMWARE_AREA, 12);
        Bytes flash = m_old;
        flash.resize(FLASH_CAPACITY, 0xFF);
        m_board.setFlash(flash);
        writeFile(m_board.path("new.bin"), m_new);
        ASSERT_EQ(shell(std::string(MERIVAK_MENDER_ARTIFACT) + " -n merivak-dsp-new -t merivak-test -o " +
                        m_board.path("new.mender") + " " + m_board.path("new.bin")),
                  0);
    }

    void TearDown() override
    {
        if (m_madeSystemPaths) {
            std::error_code ignored;
            fs::remove(kModule, ignored);
            fs::remove(kArtifactInfo, ignored);
            fs::remove_all(kData, ignored);
        }
    }

    // The command the module runs: merivak-update on this test's board.
    std::string updateCommand(const std::string& fault = "") const
    {
        std::string command = std::string(BOARDSIM_BINARY) + " --quiet --state " + m_board.stateFolder();
        if (!fault.empty()) {
            command += " --fault " + fault;
        }
        return command + " -- " + MERIVAK_UPDATE_BINARY;
    }

    int mender(const std::string& arguments, const std::string& command) const
    {
        return shell("MERIVAK_UPDATE='" + command + "' LOG4CPLUS_FILE_DIR=" + m_board.folder() +
                     " /usr/bin/mender --no-syslog " + arguments);
    }

    Bytes area() const
    {
        const Bytes flash = m_board.flash();
        return Bytes(flash.begin(), flash.begin() + FIRMWARE_AREA);
    }

    int shell(const std::string& command) const
    {
        const std::string logged = command + " >>" + m_board.path("mender.out") + " 2>&1";
        const int status = std::system(logged.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string output() const
    {
        const Bytes text = readFile(m_board.path("mender.out"));
        return std::string(text.begin(), text.end());
    }

    static void writeText(const fs::path& path, const std::string& text)
    {
        writeFile(path.string(), Bytes(text.begin(), text.end()));
    }

    SimulatedBoard m_board;
    Bytes m_old;
    Bytes m_new;
    bool m_madeSystemPaths = false;
};

TEST_F(Mender, InstallWritesTheNewImageAndCommitKeepsIt)
{
    ASSERT_EQ(mender("install " + m_board.path("new.mender"), updateCommand()), 0) << output();
    EXPECT_EQ(area(), m_new) << output();
    EXPECT_EQ(mender("commit", updateCommand()), 0) << output();
    EXPECT_EQ(area(), m_new);
}

TEST_F(Mender, FailedInstallEndsWithTheOldImage)
{
    // Where the first page of the new image goes out, in a clean run.
    SimulatedBoard twin;
    Bytes flash = m_old;
    flash.resize(FLASH_CAPACITY, 0xFF);
    twin.setFlash(flash);
    writeFile(twin.path("new.bin"), m_new);
    const RunResult clean = twin.run({MERIVAK_UPDATE_BINARY, "install", "new.bin", "--backup", "backup.bin"});
    ASSERT_EQ(clean.status, 0) << clean.describe();
    const std::vector<QJsonObject> programs = messagesOfKind(clean, MessageKind::Program);
    ASSERT_FALSE(programs.empty());
    const std::string fault = "msg:" + std::to_string(integer(programs[0].value(QStringLiteral("index")))) + ":EIO";

    EXPECT_EQ(mender("install " + m_board.path("new.mender"), updateCommand(fault)), 1) << output();
    EXPECT_EQ(area(), m_old) << output();
    EXPECT_NE(output().find("merivak-update install failed with status 5"), std::string::npos) << output();
}

// A byte that always reads back wrong: no image can be verified, neither the
// new one nor the restored one, in the install, the rollback or the failure
// handling. The module must say so, not report success.
TEST_F(Mender, FlashThatCannotBeVerifiedIsReportedLoudly)
{
    EXPECT_EQ(mender("install " + m_board.path("new.mender"), updateCommand("flip:0x100:0x01")), 1) << output();
    EXPECT_NE(output().find("THE DSP FLASH HOLDS NO VERIFIED FIRMWARE; THE BOARD NEEDS SERVICE"), std::string::npos)
        << output();
}

TEST_F(Mender, RollbackOfAnUncommittedInstallRestoresTheOldImage)
{
    ASSERT_EQ(mender("install " + m_board.path("new.mender"), updateCommand()), 0) << output();
    ASSERT_EQ(area(), m_new);
    EXPECT_EQ(mender("rollback", updateCommand()), 0) << output();
    EXPECT_EQ(area(), m_old) << output();
}

}  // namespace
