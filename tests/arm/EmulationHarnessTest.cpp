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

// This program started again as "argv0 --child" with extra environment
// entries (and without an inherited LD_PRELOAD).
struct Spawn {
    const char* argv0;
    std::vector<std::pair<std::string, std::string>> environment;
    int marker;
};

class SpawnedProgram : public ::testing::TestWithParam<Spawn> {};

TEST_P(SpawnedProgram, RunsWithItsArgv0WordSizeAndPreloadAndACleanStandardError)
{
    testsupport::ProcessRequest request;
    request.argv = {GetParam().argv0, "--child"};
    request.set = GetParam().environment;
    request.unset = {"LD_PRELOAD"};
    request.program = g_self;
    request.timeoutSeconds = 60;
    const testsupport::ProcessResult run = testsupport::runProcess(request);
    EXPECT_EQ(run.status(), 7);
    EXPECT_EQ(run.out, "argv0=" + std::string(GetParam().argv0) + "\nmarker=" + std::to_string(GetParam().marker) +
                           "\nexe=" + g_self + "\nlong=" + std::to_string(sizeof(long)) + "\n");
    // A preload handed to the emulator's own loader would show up here as a
    // "cannot be preloaded (wrong ELF class)" complaint.
    EXPECT_EQ(run.err, "");
}

// In an AddressSanitizer build the preloaded library would come before the
// sanitizer's runtime, which the runtime refuses by default.
INSTANTIATE_TEST_SUITE_P(Children, SpawnedProgram,
                         ::testing::Values(Spawn{"renamed-child", {}, 0},
                                           Spawn{"preloaded-child",
                                                 {{"LD_PRELOAD", PRELOAD_MARKER_PATH},
                                                  {"ASAN_OPTIONS", "verify_asan_link_order=0"}},
                                                 4711}));

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
