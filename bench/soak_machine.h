// SPDX-License-Identifier: Apache-2.0
//
// What a soak changes of the daemon's machine: its disk and its time of day.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace telvora::bench {

// The file systems of the message log and of the state: small ones of their own if this process may mount
// them, in a mount namespace of its own. Otherwise a full disk is a limit of 0 on the size of the daemon's
// files.
class SmallDisk {
  public:
    // To be made before this process has threads.
    SmallDisk();
    // Mounts on the directories, once.
    void mountOn(std::vector<std::filesystem::path> directories);

    void fill(pid_t daemon) const { change(daemon, true); }
    void empty(pid_t daemon) const { change(daemon, false); }
    const char* description() const { return mountable_ ? "file systems of 4 MiB" : "a limit on file sizes"; }

  private:
    void change(pid_t daemon, bool full) const;

    bool mountable_ = false;
    std::vector<std::filesystem::path> directories_;
};

// Shifts the time of day of a daemon that starts with launcher().
class ShiftedClock {
  public:
    // `file` holds the shift.
    explicit ShiftedClock(const std::filesystem::path& file);
    ~ShiftedClock();
    ShiftedClock(const ShiftedClock&) = delete;
    ShiftedClock& operator=(const ShiftedClock&) = delete;

    void shiftBy(std::chrono::seconds more) { *shift_ += more.count(); }
    // Whether the daemon sees the shift; one with a sanitizer does not.
    static bool isShifted();
    // The command that becomes the daemon. It also ignores the signal of a limit on file sizes.
    std::vector<std::string> launcher() const;

  private:
    const std::filesystem::path file_;
    std::atomic<int64_t>* shift_;
};

}  // namespace telvora::bench
