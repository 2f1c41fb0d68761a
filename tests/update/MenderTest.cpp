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

#include "TempFolder.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

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

// What the area holds; under the flipped-byte fault below the wrong byte
// also went into the backup, so no image is whole there.
enum class Image { kOld, kNew, kUnverifiable };

// One pass through the module: an install, under a fault if given ("%"
// stands for the number of the message that programs the first page), then
// a commit or rollback if given; what Mender answered and what the area holds
// after each.
struct Pass {
    const char* name;
    std::string fault;
    int installStatus;
    Image installed;
    const char* then;
    Image ends;
    const char* said;  // part of Mender's output
};

class Mender : public ::testing::TestWithParam<Pass> {
protected:
    void SetUp() override
    {
        const std::string why = whyMenderCannotRun();
        if (!why.empty()) {
            GTEST_SKIP() << why;
        }
        m_madeSystemPaths = true;
        fs::create_directories(kMenderData);
        std::ofstream(kMenderData / "device_type") << "device_type=merivak-test\n";
        std::ofstream(kArtifactInfo) << "artifact_name=merivak-test-base\n";
        fs::copy_file(MERIVAK_MENDER_MODULE, kModule);
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

    void setArea(Bytes flash) const
    {
        flash.resize(FLASH_CAPACITY, 0xFF);
        m_board.setFlash(flash);
    }

    void expectArea(Image image) const
    {
        const Bytes flash = m_board.flash();
        if (image != Image::kUnverifiable) {
            EXPECT_EQ(Bytes(flash.begin(), flash.begin() + FIRMWARE_AREA), image == Image::kNew ? m_new : m_old)
                << output();
        }
    }

    // Runs mender; the module runs merivak-update on this test's board.
    int mender(const std::string& arguments, const std::string& fault) const
    {
        const std::string update = std::string(BOARDSIM_BINARY) + " --quiet --state " + m_board.stateFolder() +
                                   (fault.empty() ? "" : " --fault " + fault) + " -- " + MERIVAK_UPDATE_BINARY;
        return shell("MERIVAK_UPDATE='" + update + "' LOG4CPLUS_FILE_DIR=" + m_board.folder() +
                     " /usr/bin/mender --no-syslog " + arguments);
    }

    int shell(const std::string& command) const
    {
        const int status = std::system((command + " >>" + m_board.path("mender.out") + " 2>&1").c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string output() const { return testsupport::readText(m_board.path("mender.out")); }

    SimulatedBoard m_board;
    const Bytes m_old = patternBytes(FIRMWARE_AREA, 11);
    const Bytes m_new = patternBytes(FIRMWARE_AREA, 12);
    bool m_madeSystemPaths = false;
};

TEST_P(Mender, EndsWithAVerifiedImageOrSaysSoLoudly)
{
    const Pass& c = GetParam();
    std::string fault = c.fault;
    if (fault.find('%') != std::string::npos) {
        setArea(m_old);
        const RunResult clean = m_board.run({MERIVAK_UPDATE_BINARY, "install", "new.bin", "--backup", "backup.bin"});
        const std::vector<QJsonObject> programs = messagesOfKind(clean, MessageKind::Program);
        ASSERT_FALSE(programs.empty()) << clean.describe();
        fault.replace(fault.find('%'), 1, text(programs[0].value(QStringLiteral("index"))));
    }
    setArea(m_old);
    EXPECT_EQ(mender("install " + m_board.path("new.mender"), fault), c.installStatus) << output();
    expectArea(c.installed);
    if (*c.then != '\0') {
        EXPECT_EQ(mender(c.then, ""), 0) << output();
        expectArea(c.ends);
    }
    EXPECT_NE(output().find(c.said), std::string::npos) << output();
}

INSTANTIATE_TEST_SUITE_P(Passes, Mender,
                         ::testing::Values(Pass{"InstallThenCommit", "", 0, Image::kNew, "commit", Image::kNew, ""},
                                           Pass{"InstallThenRollback", "", 0, Image::kNew, "rollback", Image::kOld, ""},
                                           Pass{"FailedInstallKeepsTheOldImage", "msg:%:EIO", 1, Image::kOld, "",
                                                Image::kOld, "merivak-update install failed with status 5"},
                                           // A byte that always reads back wrong: no image can be verified,
                                           // neither the new one nor the restored one, in the install, the
                                           // rollback or the failure handling. The module must not report
                                           // success.
                                           Pass{"FlashThatCannotBeVerified", "flip:0x100:0x01", 1, Image::kUnverifiable,
                                                "", Image::kUnverifiable,
                                                "THE DSP FLASH HOLDS NO VERIFIED FIRMWARE; THE BOARD NEEDS SERVICE"}),
                         [](const ::testing::TestParamInfo<Pass>& param) { return std::string(param.param.name); });

}  // namespace
