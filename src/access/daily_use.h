// SPDX-License-Identifier: Apache-2.0
//
// DailyUse: the number and size of the reports that each user's programs have posted in the present day.
//
// A day is 24 hours of the clock that runs through suspends, so that setting the time of day refills no
// quota. The first one begins with the first report, and each further one at the end of the one before. A
// file carries the present day over the daemon's end. Across boots the time of day counts, and only forward.
//
// All operations are callable from any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <utility>

#include "platform/moment.h"
#include "util/mutex.h"

namespace telvora {

class DailyUse {
  public:
    struct Amount {
        uint64_t reports = 0;
        uint64_t bytes = 0;
    };
    enum class Spent : uint8_t { yes, tooManyReports, tooManyBytes };

    explicit DailyUse(std::function<Moment()> moment) : moment_(std::move(moment)) {}

    // Adds one report of so many bytes, unless the user would exceed a limit.
    Spent spend(uid_t user, uint64_t bytes, const Amount& limits) TELVORA_EXCLUDES(lock_);
    // The amount of the present day.
    Amount of(uid_t user) TELVORA_EXCLUDES(lock_);

    // Goes on with the day in the file, unless that is over. Called before any other operation. Blocks on
    // file I/O.
    void load(const std::filesystem::path& path) TELVORA_EXCLUDES(lock_);
    // Replaces the file. A failure is logged at level 4. Blocks on file I/O.
    void save(const std::filesystem::path& path) TELVORA_EXCLUDES(lock_);

  private:
    void beginDayIfDue(const Moment& now) TELVORA_REQUIRES(lock_);

    const std::function<Moment()> moment_;
    Mutex lock_{LockRank::userLog};
    bool begun_ TELVORA_GUARDED_BY(lock_) = false;
    double dayBegin_ TELVORA_GUARDED_BY(lock_) = 0;  // seconds since the boot; negative: in an earlier one
    std::map<uid_t, Amount> users_ TELVORA_GUARDED_BY(lock_);  // only those with a report
};

}  // namespace telvora
