// SPDX-License-Identifier: MIT
// Checks what the ARM test runs rely on, natively and under user-mode QEMU:
// a program started by a test program runs (through the binfmt handler when
// emulated) with its own argv[0], gets LD_PRELOAD in its own loader, not in
// the emulator's, and leaves standard error clean. (The SPI transfer
// record's size and request numbers are held by the driver's static_asserts.)
#include "ChildProcess.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string g_self;

using ChildRun = testsupport::ProcessResult;

// Starts this program again as "argv0 --child" with extra environment
// entries (and without LD_PRELOAD) and collects its exit status and output.
ChildRun runChild(const std::string& argv0, const std::vector<std::pair<std::string, std::string>>& extraEnv)
{
    testsupport::ProcessRequest request;
    request.argv = {argv0, "--child"};
    request.set = extraEnv;
    request.unset = {"LD_PRELOAD"};
    request.program = g_self;
    request.timeoutSeconds = 60;
    return testsupport::runProcess(request);
}

// The child: reports what it sees.
int childMain(const char* argv0)
{
    using Marker = int (*)();
    const auto marker = reinterpret_cast<Marker>(dlsym(RTLD_DEFAULT, "merivakPreloadMarker"));
    char exe[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::printf("argv0=%s\nmarker=%d\nexe=%s\nlong=%zu\n", argv0, marker != nullptr ? marker() : 0,
                length > 0 ? exe : "?", sizeof(long));
    return 7;
}

TEST(SpawnedProgram, KeepsItsArgv0AndExitStatus)
{
    const ChildRun run = runChild("renamed-child", {});
    EXPECT_EQ(run.status(), 7);
    EXPECT_NE(run.out.find("argv0=renamed-child\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("marker=0\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("exe=" + g_self + "\n"), std::string::npos) << run.out;
    EXPECT_EQ(run.err, "");
}

TEST(SpawnedProgram, GetsThePreloadedLibraryInItsOwnLoader)
{
    // In an AddressSanitizer build the preloaded library would come before
    // the sanitizer's runtime, which the runtime refuses by default.
    const ChildRun run = runChild("preloaded-child",
                                  {{"LD_PRELOAD", PRELOAD_MARKER_PATH}, {"ASAN_OPTIONS", "verify_asan_link_order=0"}});
    EXPECT_EQ(run.status(), 7);
    EXPECT_NE(run.out.find("marker=4711\n"), std::string::npos) << run.out;
    // A preload handed to the emulator's own loader would show up here as a
    // "cannot be preloaded (wrong ELF class)" complaint.
    EXPECT_EQ(run.err, "");
}

TEST(SpawnedProgram, HasTheSameWordSizeAsItsParent)
{
    const ChildRun run = runChild("child", {});
    EXPECT_NE(run.out.find("long=" + std::to_string(sizeof(long)) + "\n"), std::string::npos) << run.out;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--child") == 0) {
        return childMain(argv[0]);
    }
    char self[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    g_self = length > 0 ? std::string(self, static_cast<std::size_t>(length)) : std::string(argv[0]);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
