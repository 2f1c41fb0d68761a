// SPDX-License-Identifier: MIT
// The launcher's side of the run block: creates the file, maps it and sets up
// the process-shared lock.
#pragma once

#include "run_block.h"

#include <memory>
#include <string>

namespace boardsim {

class RunFile {
public:
    // Creates path (which must not exist) holding a zeroed run block with a
    // ready lock and header. nullptr with a reason on failure.
    static std::unique_ptr<RunFile> create(const std::string& path, std::string& error);

    ~RunFile();
    RunFile(const RunFile&) = delete;
    RunFile& operator=(const RunFile&) = delete;

    RunBlock& block() { return *m_block; }
    const std::string& path() const { return m_path; }

private:
    RunFile(std::string path, RunBlock* block);

    std::string m_path;
    RunBlock* m_block;
};

}  // namespace boardsim
