// SPDX-License-Identifier: Apache-2.0
//
// Profile: samples a process with perf(1), and divides its processor time by library and by room.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <memory>

#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

namespace telvora::bench {

// Not thread-safe.
class Profile {
  public:
    // Starts to sample all threads of the process. Throws std::runtime_error if perf(1) is not installed or
    // may not sample, or if the program has no line numbers, from which the rooms come.
    explicit Profile(pid_t process);

    // Ends the sampling and writes the table. The process still runs. Throws std::runtime_error if that
    // fails.
    void write(const std::filesystem::path& file);

  private:
    std::filesystem::path samples() const { return directory_.path() / "perf.data"; }

    const pid_t process_;
    test::TemporaryDirectory directory_;
    std::unique_ptr<test::ChildProcess> perf_;
};

}  // namespace telvora::bench
