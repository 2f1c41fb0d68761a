// SPDX-License-Identifier: MIT
#include "run_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace boardsim {

std::unique_ptr<RunFile> RunFile::create(const std::string& path, std::string& error)
{
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        error = "cannot create " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    if (ftruncate(fd, sizeof(RunBlock)) != 0) {
        error = "cannot size " + path + ": " + std::strerror(errno);
        close(fd);
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(RunBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED) {
        error = "cannot map " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    auto* block = static_cast<RunBlock*>(memory);
    // The file is new, so the block is all zeros: the power-up state except
    // for the fields set here.
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    // Robust, so that a program killed inside a device call does not leave
    // the board locked for the rest of the run.
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&block->lock, &attributes);
    pthread_mutexattr_destroy(&attributes);
    block->spidev.mode = 0;
    block->spidev.bitsPerWord = 8;
    block->spidev.speedHz = kPowerUpSpeedHz;
    block->magic = kRunMagic;
    block->version = kRunVersion;
    block->size = sizeof(RunBlock);
    return std::unique_ptr<RunFile>(new RunFile(path, block));
}

RunFile::RunFile(std::string path, RunBlock* block) : m_path(std::move(path)), m_block(block) {}

RunFile::~RunFile()
{
    munmap(m_block, sizeof(RunBlock));
}

}  // namespace boardsim
