// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/temporary_directory.h"
#include "util/unique_fd.h"

namespace telvora::test {

// The lock of a directory, as another process holds it (flock(2)).
class HeldFileLock {
  public:
    explicit HeldFileLock(const std::filesystem::path& directory)
        : directory_(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        flock(directory_.get(), LOCK_EX);
    }
    // Waits until this process waits for the lock.
    static void awaitWaiter() {
        const std::string waiting = "-> FLOCK  ADVISORY  WRITE " + std::to_string(getpid()) + " ";
        while (readFile("/proc/locks").find(waiting) == std::string::npos)
            std::this_thread::yield();
    }
    void release() { directory_.reset(); }

  private:
    UniqueFd directory_;
};

}  // namespace telvora::test
