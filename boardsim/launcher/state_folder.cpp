// SPDX-License-Identifier: MIT
#include "state_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace boardsim {
namespace {

std::string systemError(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

bool makeFolder(const std::string& path, std::string& error)
{
    if (mkdir(path.c_str(), 0755) == 0) {
        return true;
    }
    struct stat info {};
    if (errno == EEXIST && stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        return true;
    }
    error = errno == EEXIST ? path + " is not a folder" : systemError("cannot create " + path);
    return false;
}

bool makeFolders(const std::string& path, std::string& error)
{
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string parent = path.substr(0, slash);
        struct stat info {};
        if (stat(parent.c_str(), &info) != 0 && !makeFolder(parent, error)) {
            return false;
        }
    }
    return makeFolder(path, error);
}

bool writeNewFlash(const std::string& path, std::uint32_t capacity, std::string& error)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = systemError("cannot create " + path);
        return false;
    }
    const std::vector<unsigned char> erased(64 * 1024, 0xFF);
    std::uint32_t written = 0;
    while (written < capacity) {
        const std::size_t chunk = std::min<std::size_t>(erased.size(), capacity - written);
        const ssize_t result = write(fd, erased.data(), chunk);
        if (result <= 0) {
            error = systemError("cannot write " + path);
            close(fd);
            unlink(path.c_str());
            return false;
        }
        written += static_cast<std::uint32_t>(result);
    }
    close(fd);
    return true;
}

bool ensureFile(const std::string& path, std::string& error)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = systemError("cannot create " + path);
        return false;
    }
    close(fd);
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        error = path + " is not a regular file";
        return false;
    }
    return true;
}

// The first word of a small attribute file, without its line end.
bool readWord(const std::string& path, std::string& word, std::string& error)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = "broken GPIO tree: " + systemError("cannot read " + path);
        return false;
    }
    char buffer[64];
    const ssize_t length = read(fd, buffer, sizeof buffer - 1);
    close(fd);
    if (length < 0) {
        error = "broken GPIO tree: " + systemError("cannot read " + path);
        return false;
    }
    word.assign(buffer, static_cast<std::size_t>(length));
    while (!word.empty() && (word.back() == '\n' || word.back() == ' ')) {
        word.pop_back();
    }
    return true;
}

bool loadLine(const std::string& folder, GpioLine& line, std::string& error)
{
    std::string value;
    std::string direction;
    std::string activeLow;
    std::string edge;
    if (!readWord(folder + "/value", value, error) || !readWord(folder + "/direction", direction, error) ||
        !readWord(folder + "/active_low", activeLow, error) || !readWord(folder + "/edge", edge, error)) {
        return false;
    }
    auto broken = [&](const std::string& file, const std::string& text) {
        error = "broken GPIO tree: " + folder + "/" + file + " holds '" + text + "'";
        return false;
    };
    if (value != "0" && value != "1") {
        return broken("value", value);
    }
    if (direction != "in" && direction != "out") {
        return broken("direction", direction);
    }
    if (activeLow != "0" && activeLow != "1") {
        return broken("active_low", activeLow);
    }
    static const char* const kEdges[] = {"none", "rising", "falling", "both"};
    int edgeIndex = -1;
    for (int i = 0; i < 4; ++i) {
        if (edge == kEdges[i]) {
            edgeIndex = i;
        }
    }
    if (edgeIndex < 0) {
        return broken("edge", edge);
    }
    line.exported = 1;
    line.activeLow = activeLow == "1" ? 1 : 0;
    line.output = direction == "out" ? 1 : 0;
    const auto electrical = static_cast<std::uint8_t>((value == "1" ? 1 : 0) ^ line.activeLow);
    if (line.output != 0) {
        line.outputLevel = electrical;
    } else {
        line.externalLevel = electrical;
    }
    line.edge = static_cast<std::uint8_t>(edgeIndex);
    line.generation = 1;
    return true;
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*)
{
    remove(path);
    return 0;
}

}  // namespace

bool prepareStateFolder(const std::string& dir, const ChipProfile& profile, std::string& error)
{
    if (!makeFolders(dir, error)) {
        return false;
    }
    const std::string flash = dir + "/flash.bin";
    struct stat info {};
    if (lstat(flash.c_str(), &info) != 0) {
        if (errno != ENOENT) {
            error = systemError("cannot use " + flash);
            return false;
        }
        if (!writeNewFlash(flash, profile.capacity, error)) {
            return false;
        }
    } else if (!S_ISREG(info.st_mode)) {
        error = "broken state folder: " + flash + " is not a regular file";
        return false;
    } else if (info.st_size != static_cast<off_t>(profile.capacity)) {
        error = "broken state folder: " + flash + " has " + std::to_string(info.st_size) + " bytes, profile " +
                profile.name + " needs " + std::to_string(profile.capacity);
        return false;
    }
    if (access(flash.c_str(), R_OK | W_OK) != 0) {
        error = systemError("broken state folder: cannot read and write " + flash);
        return false;
    }
    const std::string gpio = dir + "/gpio";
    return makeFolder(gpio, error) && ensureFile(gpio + "/export", error) && ensureFile(gpio + "/unexport", error) &&
           makeFolder(dir + "/" + kLockFolderName, error);
}

bool loadGpioTree(const std::string& dir, GpioLine* lines, std::string& error)
{
    const std::string gpio = dir + "/gpio";
    DIR* folder = opendir(gpio.c_str());
    if (folder == nullptr) {
        error = systemError("broken GPIO tree: cannot list " + gpio);
        return false;
    }
    bool ok = true;
    while (const dirent* entry = readdir(folder)) {
        const std::string name = entry->d_name;
        if (name.compare(0, 4, "gpio") != 0 || name.size() == 4 || name.size() > 7) {
            continue;
        }
        const std::string digits = name.substr(4);
        if (digits.find_first_not_of("0123456789") != std::string::npos || (digits[0] == '0' && digits.size() > 1)) {
            continue;
        }
        const int number = std::stoi(digits);
        if (number >= kGpioLines) {
            error = "broken GPIO tree: " + gpio + "/" + name + " is not a line of this board";
            ok = false;
            break;
        }
        if (!loadLine(gpio + "/" + name, lines[number], error)) {
            ok = false;
            break;
        }
    }
    closedir(folder);
    return ok;
}

void removeTree(const std::string& dir)
{
    nftw(dir.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

}  // namespace boardsim
