// SPDX-License-Identifier: MIT
#include "device_paths.h"

#include "path_text.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>

namespace boardsim {
namespace {

constexpr char kGpioRoot[] = "/sys/class/gpio";
constexpr char kMelodyPath[] = "/dev/mldalm";
// Each board has its own lock folder, so that runs on two simulated boards,
// which both see /dev/spidev0.0, do not lock each other out.
constexpr char kLockRoot[] = "/run/lock";

// "rest" is what follows the tree root: "", "/export", "/gpio48/value"...
DevicePath classifyGpio(const std::string& rest)
{
    DevicePath result;
    result.kind = PathKind::kGpioRedirect;
    result.relative = rest.empty() ? std::string() : rest.substr(1);
    if (rest == "/export") {
        result.kind = PathKind::kGpioExport;
        return result;
    }
    if (rest == "/unexport") {
        result.kind = PathKind::kGpioUnexport;
        return result;
    }
    if (rest.compare(0, 5, "/gpio") != 0) {
        return result;
    }
    const std::size_t slash = rest.find('/', 1);
    const std::string digits = rest.substr(5, slash == std::string::npos ? std::string::npos : slash - 5);
    if (digits.empty() || digits.size() > 4 || digits.find_first_not_of("0123456789") != std::string::npos ||
        (digits[0] == '0' && digits.size() > 1)) {
        return result;
    }
    result.line = std::stoi(digits);
    if (slash == std::string::npos) {
        return result;
    }
    const std::string name = rest.substr(slash + 1);
    result.kind = PathKind::kGpioLineOther;
    for (int attribute = 0; attribute < 4; ++attribute) {
        if (name == GpioSysfs::attributeName(static_cast<GpioAttribute>(attribute))) {
            result.kind = PathKind::kGpioAttribute;
            result.attribute = static_cast<GpioAttribute>(attribute);
        }
    }
    return result;
}

bool underRoot(const std::string& path, const std::string& root, std::string& rest)
{
    if (path.compare(0, root.size(), root) != 0 || (path.size() > root.size() && path[root.size()] != '/')) {
        return false;
    }
    rest = path.substr(root.size());
    if (rest == "/") {
        rest.clear();
    }
    return true;
}

}  // namespace

DevicePaths::DevicePaths(const RunConfig& config)
    : m_config(config), m_tree(normalise((std::string(config.stateDir) + "/gpio").c_str())),
      m_lockTree(normalise((std::string(config.stateDir) + "/" + kLockFolderName).c_str()))
{
}

std::string DevicePaths::normalise(const char* path)
{
    std::string full;
    if (path[0] != '/') {
        char cwd[kPathCapacity];
        if (syscall(SYS_getcwd, cwd, sizeof cwd) < 0) {
            return std::string(path);
        }
        full = cwd;
        full += '/';
    }
    full += path;
    return normalisePath(full);
}

DevicePath DevicePaths::classify(const char* path) const
{
    DevicePath result;
    if (path == nullptr || path[0] == '\0') {
        return result;
    }
    // Absolute paths without "//", "/." or a trailing slash are already in
    // normal form; only the others pay for normalising.
    const bool normal = path[0] == '/' && std::strstr(path, "//") == nullptr && std::strstr(path, "/.") == nullptr &&
                        path[std::strlen(path) - 1] != '/';
    const std::string full = normal ? std::string(path) : normalise(path);
    for (std::uint32_t i = 0; i < m_config.spidevCount; ++i) {
        if (full == m_config.spidevPaths[i]) {
            result.kind = PathKind::kSpidev;
            result.relative = full;
            return result;
        }
    }
    if (full == kMelodyPath) {
        result.kind = PathKind::kMelody;
        result.relative = full;
        return result;
    }
    std::string rest;
    if (underRoot(full, kGpioRoot, rest) || underRoot(full, m_tree, rest)) {
        return classifyGpio(rest);
    }
    if (underRoot(full, kLockRoot, rest)) {
        result.kind = PathKind::kLockRedirect;
        result.relative = rest.empty() ? std::string() : rest.substr(1);
    }
    return result;
}

std::string DevicePaths::backing(const DevicePath& path) const
{
    const std::string& root = path.kind == PathKind::kLockRedirect ? m_lockTree : m_tree;
    return path.relative.empty() ? root : root + "/" + path.relative;
}

}  // namespace boardsim
