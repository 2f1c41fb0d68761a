// SPDX-License-Identifier: MIT
// merivak-update on the simulated board: the flash ends with the new image or
// the previous firmware, byte for byte and verified, whatever fails on the way.

#include "E2eSupport.h"

#include "ChildProcess.h"
#include "DeviceLock.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>

using namespace boardtest;

namespace {

// Exit statuses of merivak-update, as documented.
constexpr int kLocked = 1;
constexpr int kImageRefused = 3;
constexpr int kFailedUntouched = 4;
constexpr int kFailedRestored = 5;
constexpr int kRestoreFailed = 6;
constexpr int kTerminated = 128 + 15;

const char* const kWaiting = "Waiting till DSP is started...";
const char* const kRestored = "restored: the previous firmware is back in the flash";
const char* const kNeedsService = "the board needs service";

std::int64_t flashCount(const RunResult& run, const char* key)
{
    return integer(run.summary.value(QLatin1String("flash")).toObject().value(QLatin1String(key)));
}

std::size_t dspStartPauses(const RunResult& run)
{
    const std::vector<QJsonObject> sleeps = run.events("sleep");
    return static_cast<std::size_t>(std::count_if(sleeps.begin(), sleeps.end(), [](const QJsonObject& sleep) {
        return integer(sleep.value(QStringLiteral("us"))) == 5000000;
    }));
}

class Update : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(::mkdir(m_board.path("tmp").c_str(), 0755), 0);
        setArea(m_old);
        writeFile(m_board.path("new.bin"), m_new);
    }

    // Runs merivak-update with its staging folder in the board's "tmp".
    RunResult update(std::vector<std::string> arguments, RunSettings settings = {}) const
    {
        arguments.insert(arguments.begin(), MERIVAK_UPDATE_BINARY);
        settings.environment.emplace_back("TMPDIR", m_board.path("tmp"));
        return m_board.run(arguments, settings);
    }

    bool stagingRemoved() const { return std::filesystem::is_empty(m_board.path("tmp")); }

    RunResult install(const RunSettings& settings = {}) const
    {
        return update({"install", "new.bin", "--backup", "backup.bin"}, settings);
    }

    void setArea(Bytes flash) const
    {
        flash.resize(FLASH_CAPACITY, 0xFF);
        m_board.setFlash(flash);
    }

    Bytes area() const
    {
        const Bytes flash = m_board.flash();
        return Bytes(flash.begin(), flash.begin() + FIRMWARE_AREA);
    }

    SimulatedBoard m_board;
    const Bytes m_old = patternBytes(FIRMWARE_AREA, 1);
    const Bytes m_new = patternBytes(FIRMWARE_AREA, 2);
};

// What the flash holds before (the image's bytes, then the rest of the old
// firmware or erased bytes), and whether that is already what a write of the
// image leaves. A short image whose bytes match the start of an older, longer
// firmware still needs the update.
struct Freshness {
    const char* name;
    std::size_t imageSize;
    bool imageInPlace;
    bool restOfAreaErased;
    bool upToDate;
};

class UpdateFreshness : public Update, public ::testing::WithParamInterface<Freshness> {};

TEST_P(UpdateFreshness, ProgramsOnlyWhenTheAreaDiffersAndBacksUpFirst)
{
    const Freshness& c = GetParam();
    const Bytes image(m_new.begin(), m_new.begin() + static_cast<std::ptrdiff_t>(c.imageSize));
    writeFile(m_board.path("new.bin"), image);
    Bytes before = c.restOfAreaErased ? Bytes(FIRMWARE_AREA, 0xFF) : m_old;
    if (c.imageInPlace) {
        std::copy(image.begin(), image.end(), before.begin());
    }
    setArea(before);

    const RunResult run = install();
    ASSERT_EQ(run.status, 0) << run.describe();
    Bytes expected(FIRMWARE_AREA, 0xFF);
    std::copy(image.begin(), image.end(), expected.begin());
    EXPECT_EQ(area(), expected);
    EXPECT_EQ(flashCount(run, "erases"), c.upToDate ? 0 : 1);
    EXPECT_EQ(flashCount(run, "programmed_pages"), c.upToDate ? 0 : 512);
    EXPECT_EQ(readFile(m_board.path("backup.bin")), c.upToDate ? Bytes() : before);
    EXPECT_FALSE(fileExists(m_board.path("backup.bin.partial")));
    EXPECT_TRUE(stagingRemoved());
    const std::vector<std::string> expectedOut =
        c.upToDate ? std::vector<std::string>{"up to date: the flash already holds the image", kWaiting}
                   : std::vector<std::string>{"checked: the flash differs from the image",
                                              "backup saved: backup.bin",
                                              "erased",
                                              "programmed",
                                              "verified",
                                              kWaiting};
    EXPECT_EQ(run.plainOutLines(), expectedOut);
    EXPECT_EQ(run.logRecords("INFO", "verified").size(), c.upToDate ? 0U : 1U) << "progress goes to the log too";
    EXPECT_EQ(dspStartPauses(run), 1U) << "one DSP start pause, at the end";
    EXPECT_EQ(run.violationsTotal(), 0);
    expectDspHeldOffDuringTransfersAndReleased(run);
}

INSTANTIATE_TEST_SUITE_P(Cases, UpdateFreshness,
                         ::testing::Values(Freshness{"OtherFirmware", FIRMWARE_AREA, false, false, false},
                                           Freshness{"WholeAreaInPlace", FIRMWARE_AREA, true, true, true},
                                           Freshness{"ShortImageInPlace", 1000, true, true, true},
                                           Freshness{"ShortImageOverLongerFirmware", 1000, true, false, false}),
                         [](const ::testing::TestParamInfo<Freshness>& param) { return param.param.name; });

// Update systems may start it with standard input closed: the image is
// then opened as descriptor 0, which is as good as any other.
TEST_F(Update, InstallsWithStandardInputClosed)
{
    RunSettings settings;
    settings.environment.emplace_back("TMPDIR", m_board.path("tmp"));
    const RunResult run = m_board.run(
        {"sh", "-c", std::string("exec 0<&- ") + MERIVAK_UPDATE_BINARY + " install new.bin --backup backup.bin"},
        settings);
    EXPECT_EQ(run.status, 0) << run.describe();
    EXPECT_EQ(area(), m_new);
}

// A file that cannot be an image, and the reason given for it.
struct Refusal {
    const char* name;
    std::function<void(const std::string& path)> make;
    const char* reason;
};

class UpdateRefusal : public Update, public ::testing::WithParamInterface<Refusal> {};

TEST_P(UpdateRefusal, ComesBeforeAnythingTouchesTheHardware)
{
    const Refusal& c = GetParam();
    const std::string image = m_board.path("image");
    c.make(image);
    writeFile(m_board.path("backup.bin"), {7, 7, 7});
    const std::string expectedError = "merivak-update: refused image " + image + ": " + c.reason + "\n";
    if (::geteuid() == 0 && std::string(c.name) == "Unreadable") {
        // Root reads any file, so the program runs as nobody; the
        // simulator's run folder is root's, so it runs without the board:
        // the refusal comes before any hardware access.
        ASSERT_EQ(::chmod(m_board.folder().c_str(), 0755), 0);
        testsupport::ProcessRequest request;
        request.argv = {"/usr/bin/setpriv",        "--reuid=65534", "--regid=65534", "--clear-groups",
                        MERIVAK_UPDATE_BINARY,     "install",       image,           "--backup",
                        m_board.path("backup.bin")};
        const testsupport::ProcessResult run = testsupport::runProcess(request);
        EXPECT_EQ(run.status(), kImageRefused) << run.describe();
        EXPECT_EQ(run.err, expectedError);
    } else {
        const RunResult run = update({"install", image, "--backup", "backup.bin"});
        EXPECT_EQ(run.status, kImageRefused) << run.describe();
        EXPECT_EQ(run.err, expectedError);
        expectHardwareUntouched(run);
    }
    EXPECT_EQ(area(), m_old);
    EXPECT_EQ(readFile(m_board.path("backup.bin")), (Bytes{7, 7, 7}));
}

INSTANTIATE_TEST_SUITE_P(
    Files, UpdateRefusal,
    ::testing::Values(
        Refusal{"Directory", [](const std::string& p) { ASSERT_EQ(::mkdir(p.c_str(), 0755), 0); },
                "is not a regular file"},
        Refusal{"Fifo", [](const std::string& p) { ASSERT_EQ(::mkfifo(p.c_str(), 0644), 0); }, "is not a regular file"},
        Refusal{"Empty", [](const std::string& p) { writeFile(p, {}); }, "is empty"},
        Refusal{"OneByteTooLarge", [](const std::string& p) { writeFile(p, Bytes(FIRMWARE_AREA + 1, 0)); },
                "is larger than the 131072-byte DSP flash area"},
        Refusal{"DanglingSymlink", [](const std::string& p) { ASSERT_EQ(::symlink("gone.bin", p.c_str()), 0); },
                "cannot be opened: No such file or directory"},
        Refusal{"Unreadable",
                [](const std::string& p) {
                    writeFile(p, Bytes(16, 1));
                    ASSERT_EQ(::chmod(p.c_str(), 0), 0);
                },
                "cannot be opened: Permission denied"}),
    [](const ::testing::TestParamInfo<Refusal>& param) { return param.param.name; });

// A fault or a termination signal at one flash message of a clean run (the
// nth message of a kind; the read-outs are, in order, the check, the backup,
// its check and the verify, one message per page), or a backup that cannot
// be written.
enum class Ends { kOld, kNew, kErased };

struct Fault {
    const char* name;
    const char* option;  // "--fault" or "--signal"; "" for none
    const char* value;   // "%" stands for the message's number
    MessageKind kind;
    std::size_t nth;
    const char* backup;
    int status;
    bool erased;
    Ends ends;
    const char* err;  // part of standard error
    const char* lastOut;
};

constexpr std::size_t kPages = FIRMWARE_AREA / 256;

class UpdateFault : public Update, public ::testing::WithParamInterface<Fault> {};

TEST_P(UpdateFault, NeverLeavesTheFlashWithoutAVerifiedFirmware)
{
    const Fault& c = GetParam();
    RunSettings settings;
    if (*c.option != '\0') {
        const RunResult clean = install();
        ASSERT_EQ(clean.status, 0) << clean.describe();
        const std::vector<QJsonObject> messages = messagesOfKind(clean, c.kind);
        ASSERT_LT(c.nth, messages.size());
        std::string value = c.value;
        value.replace(value.find('%'), 1, text(messages[c.nth].value(QStringLiteral("index"))));
        settings.simulatorOptions = {c.option, value};
        setArea(m_old);
    }
    const Bytes earlierBackup = patternBytes(FIRMWARE_AREA, 3);
    writeFile(m_board.path("backup.bin"), earlierBackup);
    ::mkdir(m_board.path("folder").c_str(), 0755);

    const RunResult run = update({"install", "new.bin", "--backup", c.backup}, settings);
    EXPECT_EQ(run.status, c.status) << run.describe();
    EXPECT_EQ(area(), c.ends == Ends::kNew ? m_new : c.ends == Ends::kOld ? m_old : Bytes(FIRMWARE_AREA, 0xFF));
    EXPECT_EQ(flashCount(run, "erases") > 0, c.erased);
    EXPECT_EQ(readFile(m_board.path("backup.bin")), c.status == kFailedUntouched ? earlierBackup : m_old);
    EXPECT_FALSE(fileExists(m_board.path(std::string(c.backup) + ".partial"))) << "no half-written copy left";
    EXPECT_TRUE(stagingRemoved());
    EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
    EXPECT_EQ(run.plainOutLines().back(), c.lastOut);
    const std::vector<std::string> out = run.plainOutLines();
    EXPECT_EQ(std::count(out.begin(), out.end(), kRestored), c.status == kFailedRestored ? 1 : 0);
    // The DSP is started only from a verified firmware that was not
    // interrupted.
    EXPECT_EQ(dspStartPauses(run), c.status == kFailedRestored ? 1U : 0U);
    EXPECT_EQ(run.err.find(kNeedsService) != std::string::npos, c.status == kRestoreFailed);
    const std::vector<std::string> errors = run.logRecords("ERROR");
    EXPECT_FALSE(errors.empty()) << "the failure is logged";
    EXPECT_EQ(std::count_if(errors.begin(), errors.end(),
                            [](const std::string& e) { return e.find(kNeedsService) != std::string::npos; }),
              c.status == kRestoreFailed ? 1 : 0)
        << run.log;
}

INSTANTIATE_TEST_SUITE_P(
    Positions, UpdateFault,
    ::testing::Values(
        Fault{"EraseFails", "--fault", "msg:%:EIO", MessageKind::Erase, 0, "backup.bin", kFailedRestored, true,
              Ends::kOld, "merivak-update: ", kWaiting},
        Fault{"FirstPageFails", "--fault", "msg:%:EIO", MessageKind::Program, 0, "backup.bin", kFailedRestored, true,
              Ends::kOld, "merivak-update: ", kWaiting},
        Fault{"MiddlePageTimesOut", "--fault", "msg:%:ETIMEDOUT", MessageKind::Program, kPages / 2 - 1, "backup.bin",
              kFailedRestored, true, Ends::kOld, "merivak-update: ", kWaiting},
        Fault{"LastPageFails", "--fault", "msg:%:EIO", MessageKind::Program, kPages - 1, "backup.bin", kFailedRestored,
              true, Ends::kOld, "merivak-update: ", kWaiting},
        Fault{"VerifyReadsAFlippedBit", "--fault", "flip:0x8123:0x10:%", MessageKind::Read, 3 * kPages + 0x81,
              "backup.bin", kFailedRestored, true, Ends::kOld, "merivak-update: ", kWaiting},
        // Every message from the first page on fails: the update and the
        // restore after it.
        Fault{"RestoreFailsToo", "--fault", "msg:%+:EIO", MessageKind::Program, 0, "backup.bin", kRestoreFailed, true,
              Ends::kErased, "the board needs service", "erased"},
        Fault{"BackupReadOutFails", "--fault", "msg:%:EIO", MessageKind::Read, kPages + 0x40, "backup.bin",
              kFailedUntouched, false, Ends::kOld, "merivak-update: ", "checked: the flash differs from the image"},
        Fault{"BackupReadOutDiffersFromTheFlash", "--fault", "flip:0x4001:0x01:%", MessageKind::Read, kPages + 0x40,
              "backup.bin", kFailedUntouched, false, Ends::kOld,
              "merivak-update: ", "checked: the flash differs from the image"},
        Fault{"BackupFolderMissing", "", "", MessageKind::Other, 0, "missing/backup.bin", kFailedUntouched, false,
              Ends::kOld, "merivak-update: ", "checked: the flash differs from the image"},
        Fault{"BackupIsAFolder", "", "", MessageKind::Other, 0, "folder", kFailedUntouched, false, Ends::kOld,
              "merivak-update: ", "checked: the flash differs from the image"},
        // Before the erase the program stops with the flash untouched; from
        // the erase on it runs to a verified image first.
        Fault{"TerminatedDuringTheBackupReadOut", "--signal", "TERM@msg:%", MessageKind::Read, kPages + 0x80,
              "backup.bin", kTerminated, false, Ends::kOld, "interrupted by SIGTERM", "backup saved: backup.bin"},
        Fault{"TerminatedAtTheErase", "--signal", "TERM@msg:%", MessageKind::Erase, 0, "backup.bin", kTerminated, true,
              Ends::kNew, "interrupted by SIGTERM", "verified"},
        Fault{"TerminatedAtTheMiddlePage", "--signal", "TERM@msg:%", MessageKind::Program, kPages / 2 - 1, "backup.bin",
              kTerminated, true, Ends::kNew, "interrupted by SIGTERM", "verified"}),
    [](const ::testing::TestParamInfo<Fault>& param) { return param.param.name; });

TEST_F(Update, RestoreWritesTheBackupBack)
{
    writeFile(m_board.path("backup.bin"), m_old);
    setArea(m_new);
    const RunResult run = update({"restore", "backup.bin"});
    ASSERT_EQ(run.status, 0) << run.describe();
    EXPECT_EQ(area(), m_old);
    EXPECT_EQ(run.plainOutLines(), (std::vector<std::string>{"erased", "programmed", "verified",
                                                             "restored: the flash holds the backup", kWaiting}));
}

TEST_F(Update, SecondRunOnTheSameFlashIsRefusedUntouched)
{
    // The simulator keeps each board's /run/lock in its state folder.
    const frontend::DeviceLock held("/dev/spidev0.0", m_board.stateFolder() + "/run-lock");
    ASSERT_EQ(held.state(), frontend::DeviceLock::State::kAcquired);
    const RunResult run = install();
    EXPECT_EQ(run.status, kLocked) << run.describe();
    EXPECT_NE(run.err.find("in use by process " + std::to_string(::getpid())), std::string::npos) << run.err;
    EXPECT_TRUE(run.events("spi_open").empty());
    EXPECT_TRUE(run.events("gpio_write").empty());
    EXPECT_EQ(area(), m_old);
}

}  // namespace
