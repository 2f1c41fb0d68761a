// SPDX-License-Identifier: MIT
#include "launcher.h"

#include "json_writer.h"
#include "options.h"
#include "program_check.h"
#include "run_config.h"
#include "run_file.h"
#include "state_folder.h"
#include "summary.h"

#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// The installed preload library's private folder (set by the build).
#ifndef BOARDSIM_PRELOAD_DIR
#define BOARDSIM_PRELOAD_DIR "/usr/local/lib/merivak"
#endif

namespace boardsim {
namespace {

constexpr int kOwnError = 125;
constexpr int kCannotRun = 127;
constexpr char kLibraryName[] = "libboardsim.so";

volatile sig_atomic_t g_child = 0;

void forwardSignal(int signal)
{
    if (g_child > 0) {
        kill(static_cast<pid_t>(g_child), signal);
    }
}

int fail(const std::string& message)
{
    std::fprintf(stderr, "boardsim: %s\n", message.c_str());
    return kOwnError;
}

std::string folderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string ownExecutable()
{
    char buffer[4096];
    const ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
}

bool readable(const std::string& path)
{
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(path.c_str(), R_OK) == 0;
}

// The preload library: --preload, else next to the launcher (build folder),
// else the private folder of an installation. It is never looked up in the
// dynamic linker's path: it is useful only to the launcher.
std::string findLibrary(const Options& options, std::string& error)
{
    if (!options.preloadPath.empty()) {
        const std::string path = absolutePath(options.preloadPath);
        if (!readable(path)) {
            error = "preload library " + path + " not found";
            return std::string();
        }
        return path;
    }
    const std::string here = folderOf(ownExecutable());
    const std::string candidates[] = {here + "/" + kLibraryName,
                                      std::string(BOARDSIM_PRELOAD_DIR) + "/" + kLibraryName};
    for (const std::string& candidate : candidates) {
        if (readable(candidate)) {
            return candidate;
        }
    }
    error = std::string("cannot find ") + kLibraryName + " next to " + here + " (use --preload PATH)";
    return std::string();
}

// In a sanitizer build the preload library needs the sanitizer runtime, which
// must come first in the program's library list: the launcher was built the
// same way, so it preloads the runtime it was linked with.
std::string sanitizerRuntime()
{
#if defined(__SANITIZE_ADDRESS__)
    std::string found;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) {
            if (info->dlpi_name != nullptr && std::strstr(info->dlpi_name, "/libasan.so") != nullptr) {
                *static_cast<std::string*>(data) = info->dlpi_name;
                return 1;
            }
            return 0;
        },
        &found);
    return found;
#else
    return std::string();
#endif
}

std::string temporaryFolder(const char* prefix, std::string& error)
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/" + prefix + ".XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) {
        error = "cannot create a folder like " + pattern + ": " + std::strerror(errno);
        return std::string();
    }
    return std::string(buffer.data());
}

bool writeFile(const std::string& path, const std::string& text, int flags, std::string& error)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
    if (fd < 0) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    const ssize_t written = write(fd, text.data(), text.size());
    close(fd);
    if (written != static_cast<ssize_t>(text.size())) {
        error = "cannot write " + path;
        return false;
    }
    return true;
}

pid_t startCommand(const Options& options, const std::string& preload, const std::string& runPath)
{
    std::string preloads = sanitizerRuntime();
    preloads += (preloads.empty() ? "" : " ") + preload;
    if (const char* existing = std::getenv("LD_PRELOAD")) {
        if (existing[0] != '\0') {
            preloads += std::string(" ") + existing;
        }
    }
    std::vector<char*> arguments;
    for (const std::string& argument : options.command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);

    const pid_t child = fork();
    if (child == 0) {
        setenv("LD_PRELOAD", preloads.c_str(), 1);
        setenv("BOARDSIM_RUN", runPath.c_str(), 1);
        execvp(arguments[0], arguments.data());
        std::fprintf(stderr, "boardsim: cannot run %s: %s\n", arguments[0], std::strerror(errno));
        _exit(kCannotRun);
    }
    return child;
}

int waitForCommand(pid_t child)
{
    g_child = child;
    struct sigaction forward {};
    forward.sa_handler = forwardSignal;
    sigemptyset(&forward.sa_mask);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaction(signal, &forward, nullptr);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return kOwnError;
        }
    }
    g_child = 0;
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : kOwnError;
}

std::string runStartLine(const RunBlock& block)
{
    JsonWriter json;
    json.beginObject()
        .number("t", 0)
        .string("ev", "run_start")
        .string("profile", block.config.profile.name)
        .string("chip", block.config.profile.chip)
        .string("timing", block.config.useMaxTiming != 0 ? "max" : "typ")
        .string("state", block.config.stateDir)
        .endObject();
    return json.text() + "\n";
}

std::string runEndLine(const RunBlock& block, int status)
{
    JsonWriter json;
    json.beginObject()
        .number("t", block.clockNs)
        .string("ev", "run_end")
        .number("status", status)
        .number("board_time_ns", block.clockNs)
        .endObject();
    return json.text() + "\n";
}

// Temporary folders of the run, removed however the run ends.
class TemporaryFolders {
public:
    ~TemporaryFolders()
    {
        for (const std::string& folder : m_folders) {
            removeTree(folder);
        }
    }
    void add(const std::string& folder) { m_folders.push_back(folder); }

private:
    std::vector<std::string> m_folders;
};

}  // namespace

int runLauncher(int argc, const char* const* argv)
{
    Options options;
    std::string error;
    if (!parseOptions(argc, argv, options, error)) {
        return fail(error);
    }
    if (options.help) {
        std::fputs(usageText().c_str(), stdout);
        return 0;
    }
    const char* faultText = std::getenv("BOARDSIM_FAULTS");
    const std::vector<std::string> faultList = splitFaultList(faultText != nullptr ? faultText : "");

    const std::string library = findLibrary(options, error);
    if (library.empty()) {
        return fail(error);
    }

    TemporaryFolders temporary;
    std::string stateDir;
    if (options.stateDir.empty()) {
        stateDir = temporaryFolder("boardsim-state", error);
        if (stateDir.empty()) {
            return fail(error);
        }
        temporary.add(stateDir);
    } else {
        stateDir = absolutePath(options.stateDir);
    }
    const std::string runDir = temporaryFolder("boardsim-run", error);
    if (runDir.empty()) {
        return fail(error);
    }
    temporary.add(runDir);

    std::unique_ptr<RunFile> runFile = RunFile::create(runDir + "/run.bin", error);
    if (!runFile) {
        return fail(error);
    }
    RunBlock& block = runFile->block();
    if (!setUpRun(options, stateDir, faultList, block, error)) {
        return fail(error);
    }
    if (block.config.tracePath[0] != '\0' && !writeFile(block.config.tracePath, runStartLine(block), O_TRUNC, error)) {
        return fail(error);
    }
    if (!options.summaryPath.empty() && !writeFile(absolutePath(options.summaryPath), "", O_TRUNC, error)) {
        return fail(error);
    }

    const std::string program = findProgram(options.command[0]);
    if (!program.empty() && staticallyLinked(program)) {
        return fail(program + " is statically linked: the simulator cannot be loaded into it");
    }

    const pid_t child = startCommand(options, library, runFile->path());
    if (child < 0) {
        return fail(std::string("cannot start the command: ") + std::strerror(errno));
    }
    const int status = waitForCommand(child);

    if (block.config.tracePath[0] != '\0') {
        writeFile(block.config.tracePath, runEndLine(block, status), O_APPEND, error);
    }
    if (!options.summaryPath.empty() &&
        !writeFile(absolutePath(options.summaryPath), summaryJson(block, status), O_TRUNC, error)) {
        std::fprintf(stderr, "boardsim: %s\n", error.c_str());
    }
    if (!options.quiet) {
        std::fputs(summaryText(block).c_str(), stderr);
    }
    if (block.counters.processes == 0 && status != kCannotRun) {
        std::fprintf(stderr, "boardsim: warning: no process of %s loaded %s, so none of it used the simulated board\n",
                     options.command[0].c_str(), kLibraryName);
    }
    return status;
}

}  // namespace boardsim
